#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>
#include <vntr/UserDefaults.hpp>

#include "Runtime.hpp"

namespace vntr::test {

struct LiveRuntimeOptions {
  /// Writes "VantrelTagManagerSDKInfo.plist" with site ID "12345" into the bundle directory.
  bool siteId = true;
  /// Stores IABConsent_SubjectToGDPR = "0" (no consent needed) before anything decides consent.
  bool notSubjectToGdpr = true;
  /// Where a consent check goes; a loopback port with nothing behind it unless a test serves one.
  std::string consentCheckURL = "http://127.0.0.1:9/gdpr/check/json/current";
  /// The requester's first timer and its regular pause until a server answer changes it, so
  /// tests need not sit through the 2 s default. Nothing keeps the library's defaults.
  std::optional<int64_t> firstBatchDelayMs = 100;
  std::optional<int64_t> batchIntervalMs = 100;
};

/// A runtime as an application has it, but private to a test: its own main and store queues on
/// library threads, SQLite files under `root` (bundle/, documents/, config/defaults.json), the
/// real HTTP transport, host reachability starting reachable, pinned device facts. The server
/// URL and the delegate are process-wide preferences the test sets itself.
///
/// Two instances over the same `root`, one after the other, are two launches of one app.
class LiveRuntime {
 public:
  explicit LiveRuntime(const std::filesystem::path& root, LiveRuntimeOptions options = {});
  ~LiveRuntime();
  LiveRuntime(const LiveRuntime&) = delete;
  LiveRuntime& operator=(const LiveRuntime&) = delete;

  static ProcessPaths pathsUnder(const std::filesystem::path& root);

  /// The intake, exactly as VNTRTagManager::fireEvents runs it for the shared runtime.
  void fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                  const nlohmann::json& eventData = nlohmann::json::object());
  /// Requests in the store, after the store work queued so far.
  int64_t storedCount();

  Runtime& runtime() { return *runtime_; }
  UserDefaults& defaults() { return *defaults_; }

 private:
  std::shared_ptr<UserDefaults> defaults_;
  std::unique_ptr<Runtime> runtime_;
};

}  // namespace vntr::test
