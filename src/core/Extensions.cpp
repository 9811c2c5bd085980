#include "core/Extensions.hpp"

#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "core/Resources.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {
namespace {
// 2001-01-01 00:00:00 UTC in Unix seconds.
constexpr std::chrono::seconds kReferenceDate{978'307'200};
}  // namespace

std::string timestamp(TimePoint date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
  // Every request built within one second carries the same text: formatted once per second.
  thread_local std::pair<int64_t, std::string> last{INT64_MIN, {}};
  if (last.first == seconds) return last.second;
  const auto t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  const size_t n = std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &utc);
  last = {seconds, std::string(text, n)};
  return last.second;
}

double referenceDateSeconds(TimePoint date) {
  return std::chrono::duration<double>(date.time_since_epoch() - kReferenceDate).count();
}

TimePoint fromReferenceDateSeconds(double seconds) {
  return TimePoint{kReferenceDate} +
         std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(seconds));
}

std::optional<std::string> dataFromResourceNamed(std::string_view name) {
  for (const auto& resource : detail::embeddedResources()) {
    if (resource.name == name) return std::string(resource.bytes);
  }
  return std::nullopt;
}

std::optional<nlohmann::json> dictionaryFromJSFileNamed(std::string_view name) {
  const auto data = dataFromResourceNamed(name);
  if (!data) {
    Debug(VantrelLogLevel::error, std::string(name) + " data read failed");
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(*data, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    Debug(VantrelLogLevel::error, "Sync Event Init :  json de-serialization failed.");
    return std::nullopt;
  }
  if (!parsed.is_object()) {
    Debug(VantrelLogLevel::error, "Sync Event Init : casting json object to dictionary failed.");
    return std::nullopt;
  }
  return parsed;
}

bool appendJSONString(std::string& out, std::string_view text) {
  if (!isValidUTF8(text)) return false;
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  size_t plain = 0;  // start of the run of characters copied as they are
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text, plain, i - plain);
    plain = i + 1;
    out += '\\';
    switch (c) {
      case '"':
        out += '"';
        break;
      case '\\':
        out += '\\';
        break;
      case '\b':
        out += 'b';
        break;
      case '\f':
        out += 'f';
        break;
      case '\n':
        out += 'n';
        break;
      case '\r':
        out += 'r';
        break;
      case '\t':
        out += 't';
        break;
      default:
        out += "u00";
        out += kHex[c >> 4];
        out += kHex[c & 0xf];
    }
  }
  out.append(text, plain, text.size() - plain);
  out += '"';
  return true;
}

bool isValidUTF8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    size_t extra = 0;
    uint32_t point = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      point = c & 0x1Fu;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      point = c & 0x0Fu;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      point = c & 0x07u;
    } else {
      return false;
    }
    if (i + extra >= text.size()) return false;  // truncated sequence
    for (size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      point = (point << 6) | (next & 0x3Fu);
    }
    static constexpr uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (point < kMinimum[extra] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return true;
}

bool jsonNestingWithin(std::string_view text, size_t limit) {
  size_t depth = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

nlohmann::json requiredTemplate(std::string_view name) {
  auto dictionary = dictionaryFromJSFileNamed(name);
  if (!dictionary) {
    const std::string line =
        "[Fatal] required resource missing or invalid: " + std::string(name) + "\n";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
    std::abort();
  }
  return std::move(*dictionary);
}

}  // namespace vntr
