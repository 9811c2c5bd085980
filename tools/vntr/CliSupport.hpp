#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vntr/VNTRPreferences.hpp>

namespace vntr::cli {

/// Sums every statistic the library reports; read from any thread.
class CountingDelegate final : public VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override;
  int64_t total(VNTRStatistic statistic) const;

 private:
  std::array<std::atomic<int64_t>, 10> totals_{};
};

/// A fresh private directory under the system's temporary directory, removed with everything in
/// it on destruction. `path()` is empty when it could not be made.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::string& prefix);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Writes "VantrelTagManagerSDKInfo.plist" with `siteId` into `directory` (created if missing).
/// Returns the reason when it cannot.
std::optional<std::string> writeSiteIdPlist(const std::string& directory,
                                            const std::string& siteId);

/// Where this program's request queue lives when no directory is given, worked out the way the
/// library does it but without creating anything.
std::filesystem::path defaultDocumentsDirectory();

/// 1234567 -> "1,234,567".
std::string withThousands(int64_t value);

/// Reference-date seconds (since 2001-01-01 UTC) as "YYYY-MM-DD hh:mm:ss UTC"; an ISO 8601 form
/// ("YYYY-MM-DDThh:mm:ssZ") when `iso`.
std::string formatReferenceDate(double seconds, bool iso = false);

}  // namespace vntr::cli
