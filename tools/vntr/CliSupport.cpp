#include "CliSupport.hpp"

#include <stdlib.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/linux/Files.hpp"
#include "platform/linux/Paths.hpp"

namespace vntr::cli {

void CountingDelegate::notifyForStatistic(int64_t statistic, int64_t adjustment) {
  if (statistic < 0 || statistic >= static_cast<int64_t>(totals_.size())) return;
  totals_[static_cast<size_t>(statistic)].fetch_add(adjustment, std::memory_order_relaxed);
}

int64_t CountingDelegate::total(VNTRStatistic statistic) const {
  return totals_[static_cast<size_t>(statistic.rawValue())].load(std::memory_order_relaxed);
}

TemporaryDirectory::TemporaryDirectory(const std::string& prefix) {
  // The tools make it before they start any thread.
  // NOLINTNEXTLINE(concurrency-mt-unsafe)
  const char* base = std::getenv("TMPDIR");
  const bool usable = base != nullptr && base[0] == '/';
  std::string pattern = joinPath(usable ? base : "/tmp", prefix + "-XXXXXX");
  if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;  // mode 0700
}

TemporaryDirectory::~TemporaryDirectory() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

namespace {

std::string escapeXML(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace

std::optional<std::string> writeSiteIdPlist(const std::string& directory,
                                            const std::string& siteId) {
  if (auto error = createPrivateDirectories(directory)) return error;
  const auto file = joinPath(directory, "VantrelTagManagerSDKInfo.plist");
  const std::string contents =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>" +
      escapeXML(siteId) + "</string></dict></plist>\n";
  // Text paths and stdio, not std::filesystem and a file stream: vntr-bench calls this before it
  // measures, and those would map parts of libstdc++ the library never uses into its process.
  std::FILE* out = std::fopen(file.c_str(), "w");
  if (out == nullptr) return "cannot write " + file + ": " + std::strerror(errno);
  const bool written = std::fputs(contents.c_str(), out) >= 0;
  if (std::fclose(out) != 0 || !written) return "cannot write " + file;
  return std::nullopt;
}

std::filesystem::path defaultDocumentsDirectory() {
  const auto executable = runningExecutable();
  const auto app = appNameFor(bundleIdentifierIn(executable.directory), executable.name);
  return vntr::defaultDocumentsDirectory(app, processEnvironment());
}

std::string withThousands(int64_t value) {
  std::string digits = std::to_string(value < 0 ? -value : value);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return value < 0 ? "-" + out : out;
}

std::string formatReferenceDate(double seconds, bool iso) {
  constexpr double kReferenceToUnix = 978307200;  // 2001-01-01T00:00:00Z in Unix seconds
  if (!std::isfinite(seconds)) return "(invalid time)";
  const auto unix = static_cast<time_t>(std::floor(seconds + kReferenceToUnix));
  std::tm parts{};
  if (::gmtime_r(&unix, &parts) == nullptr) return "(invalid time)";
  char text[40];
  const size_t n = std::strftime(text, sizeof text,
                                 iso ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%d %H:%M:%S UTC", &parts);
  return n == 0 ? "(invalid time)" : std::string(text, n);
}

}  // namespace vntr::cli
