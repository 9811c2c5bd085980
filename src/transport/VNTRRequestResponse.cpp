#include "transport/VNTRRequestResponse.hpp"

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "transport/PlainAnswerScanner.hpp"

namespace vntr {

std::optional<VNTRRemoteResponse> VNTRRemoteResponse::make(const nlohmann::json& dictionary) {
  const auto id = dictionary.find("id");
  if (id == dictionary.end() || !id->is_string()) return std::nullopt;
  VNTRRemoteResponse response;
  response.id = id->get<std::string>();
  if (const auto result = dictionary.find("result");
      result != dictionary.end() && result->is_object()) {
    response.remoteResult = *result;
  }
  if (const auto error = dictionary.find("error");
      error != dictionary.end() && error->is_object()) {
    response.remoteError = *error;
  }
  if (!response.remoteResult && !response.remoteError) return std::nullopt;
  return response;
}

namespace {

void logNotSerializable() {
  Debug(VantrelLogLevel::warning, "Remote Response was not serializable");
}

// Reads the answer in one pass without building the whole document: each entry's "id" is
// kept as text and only its "result" and "error" objects become JSON values. What it accepts and
// rejects is what a parsed document would give: the last of repeated members counts.
class AnswerReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  using json = nlohmann::json;

  bool topIsContainer() const { return topIsContainer_; }
  bool envelopeUsable() const { return topIsArray_ && entriesAreObjects_; }
  /// Every entry in order; unusable ones as nothing.
  detail::AnswerEntries& entries() { return entries_; }

  bool null() override {
    return value([] { return json(nullptr); });
  }
  bool boolean(bool v) override {
    return value([v] { return json(v); });
  }
  bool number_integer(number_integer_t v) override {
    return value([v] { return json(v); });
  }
  bool number_unsigned(number_unsigned_t v) override {
    return value([v] { return json(v); });
  }
  bool number_float(number_float_t v, const string_t& text) override {
    if (capture_) return capture_->number_float(v, text);
    return value([v] { return json(v); });
  }
  bool string(string_t& v) override {
    if (capture_) return capture_->string(v);
    if (depth_ == 2 && inEntry_ && member_ == Member::id) {
      entry_.id = std::move(v);
      idIsText_ = true;
      return true;
    }
    return value([] { return json(); });
  }
  bool binary(binary_t& v) override { return capture_ ? capture_->binary(v) : true; }
  bool key(string_t& k) override {
    if (capture_) return capture_->key(k);
    if (depth_ == 2 && inEntry_) member_ = memberNamed(k);
    return true;
  }
  bool start_object(std::size_t n) override { return open(true, n); }
  bool start_array(std::size_t n) override { return open(false, n); }
  bool end_object() override { return close(true); }
  bool end_array() override { return close(false); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  enum class Member { other, id, result, error };
  using Builder = nlohmann::detail::json_sax_dom_parser<json>;

  static Member memberNamed(const std::string& k) {
    if (k == "id") return Member::id;
    if (k == "result") return Member::result;
    if (k == "error") return Member::error;
    return Member::other;
  }

  // A scalar: inside a captured object, into it; as an entry's member, it replaces that member.
  template <class Make>
  bool value(Make make) {
    if (capture_) return captureScalar(make());
    if (depth_ == 0) topIsContainer_ = false;
    if (depth_ == 1 && topIsArray_) entriesAreObjects_ = false;
    if (depth_ == 2 && inEntry_) memberIsNotAnObject();
    return true;
  }
  bool captureScalar(json v) {
    switch (v.type()) {
      case json::value_t::null:
        return capture_->null();
      case json::value_t::boolean:
        return capture_->boolean(v.get<bool>());
      case json::value_t::number_integer:
        return capture_->number_integer(v.get<number_integer_t>());
      case json::value_t::number_unsigned:
        return capture_->number_unsigned(v.get<number_unsigned_t>());
      default:
        return false;  // floats and strings are forwarded as they come
    }
  }
  void memberIsNotAnObject() {
    if (member_ == Member::id) idIsText_ = false;
    if (member_ == Member::result) entry_.remoteResult.reset();
    if (member_ == Member::error) entry_.remoteError.reset();
  }

  bool open(bool object, std::size_t n) {
    if (capture_) {
      ++captureDepth_;
      return object ? capture_->start_object(n) : capture_->start_array(n);
    }
    if (depth_ == 0) topIsArray_ = !object;
    if (depth_ == 1 && topIsArray_) {
      entriesAreObjects_ = entriesAreObjects_ && object;
      if (object) startEntry();
    }
    if (depth_ == 2 && inEntry_) {
      memberIsNotAnObject();
      if (object && (member_ == Member::result || member_ == Member::error)) {
        auto& slot = member_ == Member::result ? entry_.remoteResult : entry_.remoteError;
        slot.emplace();
        capture_.emplace(*slot, /*allow_exceptions=*/false);
        captureDepth_ = 1;
        ++depth_;
        return capture_->start_object(n);
      }
    }
    ++depth_;
    return true;
  }
  bool close(bool object) {
    if (capture_) {
      const bool ok = object ? capture_->end_object() : capture_->end_array();
      if (--captureDepth_ == 0) {
        capture_.reset();
        --depth_;
      }
      return ok;
    }
    --depth_;
    if (depth_ == 1 && inEntry_) finishEntry();
    return true;
  }
  void startEntry() {
    inEntry_ = true;
    idIsText_ = false;
    member_ = Member::other;
    entry_ = VNTRRemoteResponse();
  }
  void finishEntry() {
    inEntry_ = false;
    const bool usable = idIsText_ && (entry_.remoteResult || entry_.remoteError);
    entries_.push_back(usable ? std::optional(std::move(entry_)) : std::nullopt);
  }

  int depth_ = 0;  // containers open outside a capture; 1 inside the envelope
  bool topIsContainer_ = true;
  bool topIsArray_ = false;
  bool entriesAreObjects_ = true;
  bool inEntry_ = false;
  bool idIsText_ = false;
  Member member_ = Member::other;
  VNTRRemoteResponse entry_;
  std::optional<Builder> capture_;  // building a "result" or "error" object
  int captureDepth_ = 0;
  detail::AnswerEntries entries_;
};

}  // namespace

namespace {

VNTRRequestResponse fromEntries(detail::AnswerEntries& entries) {
  VNTRRequestResponse response;
  response.methodResponses.reserve(entries.size());
  for (auto& entry : entries) {
    if (entry) {
      response.methodResponses.push_back(std::move(*entry));
    } else {
      Debug(VantrelLogLevel::warning,
            "Unable to create remote Response Object for single response.");
    }
  }
  return response;
}

}  // namespace

std::optional<VNTRRequestResponse> VNTRRequestResponse::make(std::string_view data) {
  if (data.size() > kMaxBodyBytes) {
    logNotSerializable();
    return std::nullopt;
  }
  if (auto entries = detail::scanPlainAnswer(data, kMaxDepth)) return fromEntries(*entries);
  if (!jsonNestingWithin(data, kMaxDepth)) {
    logNotSerializable();
    return std::nullopt;
  }
  AnswerReader reader;
  // A bare scalar is not a valid top level for the platform reader either.
  if (!nlohmann::json::sax_parse(data, &reader) || !reader.topIsContainer()) {
    logNotSerializable();
    return std::nullopt;
  }
  if (!reader.envelopeUsable()) {
    Debug(VantrelLogLevel::warning,
          "Remote Response is not an array of dictionaries, therefore not usable");
    return std::nullopt;
  }
  return fromEntries(reader.entries());
}

}  // namespace vntr
