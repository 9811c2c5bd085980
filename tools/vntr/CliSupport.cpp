#include "CliSupport.hpp"

#include <stdlib.h>

#include <cmath>
#include <ctime>
#include <fstream>

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
  std::error_code ec;
  auto base = std::filesystem::temp_directory_path(ec);
  if (ec) base = "/tmp";
  std::string pattern = (base / (prefix + "-XXXXXX")).string();
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

std::optional<std::string> writeSiteIdPlist(const std::filesystem::path& directory,
                                            const std::string& siteId) {
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) return "cannot create " + directory.string() + ": " + ec.message();
  const auto file = directory / "VantrelTagManagerSDKInfo.plist";
  std::ofstream out(file, std::ios::trunc);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>"
      << escapeXML(siteId) << "</string></dict></plist>\n";
  out.close();
  if (!out) return "cannot write " + file.string();
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
