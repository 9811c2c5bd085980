// The common shape of a batch answer, read without the general JSON reader: a hand-written
// scanner over a subset of JSON that gives up, rather than guesses, on anything outside it.
#include "transport/PlainAnswerScanner.hpp"

#include <cstdint>

namespace vntr::detail {
namespace {

using nlohmann::json;

constexpr size_t kMaxIntegerDigits = 18;  // always fits an int64_t

class PlainScanner {
 public:
  PlainScanner(std::string_view body, size_t maxDepth)
      : at_(body.data()), end_(body.data() + body.size()), maxDepth_(maxDepth) {}

  std::optional<AnswerEntries> answer() {
    AnswerEntries entries;
    skipSpace();
    if (!take('[')) return std::nullopt;
    skipSpace();
    if (!take(']')) {
      for (;;) {
        skipSpace();
        if (!entry(entries.emplace_back())) return std::nullopt;
        skipSpace();
        if (take(']')) break;
        if (!take(',')) return std::nullopt;
      }
    }
    skipSpace();
    if (at_ != end_) return std::nullopt;
    return entries;
  }

 private:
  // One entry of the envelope: an object whose last "id", "result" and "error" count, as when
  // the whole document is read.
  bool entry(std::optional<VNTRRemoteResponse>& out) {
    if (2 > maxDepth_ || !take('{')) return false;
    VNTRRemoteResponse response;
    bool idIsText = false;
    skipSpace();
    if (!take('}')) {
      for (;;) {
        std::string_view key;
        skipSpace();
        if (!string(key)) return false;
        skipSpace();
        if (!take(':')) return false;
        skipSpace();
        if (key == "id") {
          std::string_view id;
          idIsText = peek('"');
          if (idIsText ? !string(id) : !value<false>(nullptr, 3)) return false;
          response.id.assign(id);
        } else if (key == "result" || key == "error") {
          auto& slot = key == "result" ? response.remoteResult : response.remoteError;
          slot.reset();
          if (peek('{')) {
            if (!value<true>(&slot.emplace(), 3)) return false;
          } else if (!value<false>(nullptr, 3)) {
            return false;
          }
        } else if (!value<false>(nullptr, 3)) {
          return false;
        }
        skipSpace();
        if (take('}')) break;
        if (!take(',')) return false;
      }
    }
    if (idIsText && (response.remoteResult || response.remoteError)) out = std::move(response);
    return true;
  }

  // A value at nesting `depth` (of the containers it opens), made into `*out` when `Build`.
  template <bool Build>
  bool value(json* out, size_t depth) {
    if (at_ == end_) return false;
    switch (*at_) {
      case '{':
      case '[':
        return container<Build>(out, depth);
      case '"': {
        std::string_view text;
        if (!string(text)) return false;
        if constexpr (Build) *out = std::string(text);
        return true;
      }
      case 't':
        return literal("true", out, json(true));
      case 'f':
        return literal("false", out, json(false));
      case 'n':
        return literal("null", out, json(nullptr));
      default:
        return integer(out);
    }
  }

  template <bool Build>
  bool container(json* out, size_t depth) {
    if (depth > maxDepth_) return false;
    const bool object = *at_++ == '{';
    if constexpr (Build) *out = object ? json::object() : json::array();
    skipSpace();
    if (take(object ? '}' : ']')) return true;
    for (;;) {
      skipSpace();
      json* slot = nullptr;
      if (object) {
        std::string_view key;
        if (!string(key)) return false;
        skipSpace();
        if (!take(':')) return false;
        skipSpace();
        // A repeated key keeps its last value, as in a document read whole.
        if constexpr (Build) slot = &(*out)[std::string(key)];
      } else if constexpr (Build) {
        slot = &out->emplace_back();
      }
      if (!value<Build>(slot, depth + 1)) return false;
      skipSpace();
      if (take(object ? '}' : ']')) return true;
      if (!take(',')) return false;
    }
  }

  // A string of printable ASCII without escapes; its text is the bytes between the quotes.
  bool string(std::string_view& text) {
    if (!take('"')) return false;
    const char* from = at_;
    for (; at_ != end_; ++at_) {
      const auto c = static_cast<unsigned char>(*at_);
      if (c == '"') {
        text = std::string_view(from, static_cast<size_t>(at_ - from));
        ++at_;
        return true;
      }
      if (c == '\\' || c < 0x20 || c >= 0x80) return false;
    }
    return false;
  }

  // An integer of at most kMaxIntegerDigits digits: unsigned when written without a sign, as
  // the general reader makes it.
  bool integer(json* out) {
    const bool negative = take('-');
    const char* from = at_;
    uint64_t magnitude = 0;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') {
      magnitude = magnitude * 10 + static_cast<uint64_t>(*at_ - '0');
      ++at_;
    }
    const auto digits = static_cast<size_t>(at_ - from);
    if (digits == 0 || digits > kMaxIntegerDigits || (digits > 1 && *from == '0')) return false;
    // A fraction or an exponent is left to the general reader.
    if (at_ != end_ && (*at_ == '.' || *at_ == 'e' || *at_ == 'E')) return false;
    if (out != nullptr) {
      *out = negative ? json(-static_cast<int64_t>(magnitude)) : json(magnitude);
    }
    return true;
  }

  bool literal(std::string_view word, json* out, json made) {
    if (static_cast<size_t>(end_ - at_) < word.size() ||
        std::string_view(at_, word.size()) != word) {
      return false;
    }
    at_ += word.size();
    if (out != nullptr) *out = std::move(made);
    return true;
  }

  void skipSpace() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
  }
  bool peek(char c) const { return at_ != end_ && *at_ == c; }
  bool take(char c) {
    if (!peek(c)) return false;
    ++at_;
    return true;
  }

  const char* at_;
  const char* const end_;
  const size_t maxDepth_;
};

}  // namespace

std::optional<AnswerEntries> scanPlainAnswer(std::string_view body, size_t maxDepth) {
  return PlainScanner(body, maxDepth).answer();
}

}  // namespace vntr::detail
