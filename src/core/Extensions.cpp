#include "core/Extensions.hpp"

#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "core/Resources.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {
namespace {
// 2001-01-01 00:00:00 UTC in Unix seconds.
constexpr std::chrono::seconds kReferenceDate{978'307'200};
}  // namespace

std::string timestamp(TimePoint date) {
  const auto seconds =
      std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
  const auto t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  const size_t n = std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &utc);
  return std::string(text, n);
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

nlohmann::json requiredTemplate(std::string_view name) {
  auto dictionary = dictionaryFromJSFileNamed(name);
  if (!dictionary) {
    const std::string line = "[Fatal] required resource missing or invalid: " + std::string(name) + "\n";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
    std::abort();
  }
  return std::move(*dictionary);
}

}  // namespace vntr
