#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include <vntr/UserDefaults.hpp>

#include "Runtime.hpp"
#include "core/ManualExecutor.hpp"
#include "core/VNTRInfo.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/TestSupport.hpp"
#include "transport/HTTPMockClient.hpp"

namespace vntr::test {

/// Device facts pinned to known values.
class FakeFacts final : public DeviceFactsSource {
 public:
  std::string idfa() override { return "00000000-0000-0000-0000-000000000000"; }
  std::string idfv() override { return "11111111-2222-3333-4444-555555555555"; }
  std::string model() override { return "Test Box"; }
  std::string systemVersion() override { return "12.1"; }
  bool trackingEnabled() override { return false; }
  std::string sdkVersion() override { return "9.9.9"; }
  std::string language() override { return "en-US"; }
  std::string hardware() override { return "x86_64"; }
  std::optional<std::string> bundleIdentifier() override { return bundleId; }
  std::optional<TimePoint> firstInstall() override {
    return TimePoint{std::chrono::seconds{1551441600}};  // 2019-03-01 12:00:00 UTC
  }
  std::optional<std::string> bundleId = "com.example.app";
};

/// A transport that records every body and answers through an HTTPMockClient, answers nothing
/// useful, fails, or holds the completion until the test releases it.
class RecordingTransport final : public HTTPClientProtocol {
 public:
  enum class Mode { mock, emptyAnswer, fail, hold };

  void post(std::string body, const std::string& url, HTTPCompletion completion) override;

  /// The members' ids of batch `index`, in body order.
  std::vector<std::string> ids(size_t index) const;
  std::vector<std::string> bodies() const;
  size_t batches() const;
  /// Answers the held batches through the mock, or fails them without a response.
  void releaseHeld(bool fail = false);

  Mode mode = Mode::mock;
  HTTPMockClient mock;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> bodies_;
  std::vector<std::pair<std::string, HTTPCompletion>> held_;
};

/// Records delegate notifications as raw statistic values (adjustments kept separately).
class RecordingDelegate final : public VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override;
  std::vector<int64_t> statistics() const;
  int64_t total(int64_t statistic) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<int64_t, int64_t>> calls_;
};

struct HarnessOptions {
  bool siteId = true;
  /// The host's site ID, used when the plist gives none.
  std::optional<std::string> hostSiteId = std::nullopt;
  bool consent = true;
  uint32_t reachabilityFlags = 0x2;  // the host-reported starting state
  /// The kernel source starts the real route monitor (for tests in a network namespace).
  VNTRReachability::Source reachabilitySource = VNTRReachability::Source::host;
};

/// An isolated runtime: a temporary data directory, one manual queue serving as main and store
/// queue (stepped by the test), a recording transport, a recording delegate, pinned facts.
class Harness {
 public:
  explicit Harness(HarnessOptions options = {});
  ~Harness();

  /// Queues `n` high-priority events through the sync-event path, one clock millisecond apart,
  /// and runs the store work.
  void storeEvents(int n, const std::string& prefix = "event");
  int64_t storedCount();
  /// Every event id stored, newest first.
  std::vector<std::string> storedIds();

  TempDir dir;
  std::shared_ptr<ManualExecutor> queue;
  std::shared_ptr<RecordingTransport> transport;
  std::shared_ptr<UserDefaults> defaults;
  std::shared_ptr<RecordingDelegate> delegate;
  std::shared_ptr<FakeFacts> facts;
  std::unique_ptr<Runtime> runtime;
};

}  // namespace vntr::test
