#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
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

/// Device facts pinned to known values that count how often they are asked for; or, like a broken
/// host-supplied source, facts that all throw.
class FakeFacts final : public DeviceFactsSource {
 public:
  explicit FakeFacts(bool throws = false) : throws_(throws) {}
  std::string idfa() override { return ask("6D92078A-8246-4BA4-AE5B-76104861E7DC"); }
  std::string idfv() override { return ask("11111111-2222-3333-4444-555555555555"); }
  std::string model() override { return ask("Test Box"); }
  std::string systemVersion() override { return ask("12.1"); }
  bool trackingEnabled() override { return ask(true); }
  std::string sdkVersion() override { return ask("9.9.9"); }
  std::string language() override { return ask("en-US"); }
  std::string hardware() override { return ask("x86_64"); }
  std::optional<std::string> bundleIdentifier() override { return ask("com.example.app"); }
  std::optional<TimePoint> firstInstall() override { return ask(installed); }

  std::optional<TimePoint> installed = TimePoint{std::chrono::seconds{1551441600}};  // 2019-03-01
  std::atomic<int> calls{0};

 private:
  template <class T>
  T ask(T value) {
    if (throws_) throw std::runtime_error("unavailable");
    ++calls;
    return value;
  }
  bool throws_;
};

/// A transport that records every body and answers through an HTTPMockClient, or holds the
/// completion until the test releases it.
class RecordingTransport final : public HTTPClientProtocol {
 public:
  enum class Mode { mock, hold };

  void post(std::string body, const std::string& url, HTTPCompletion completion) override;

  /// The members' ids of batch `index`, in body order.
  std::vector<std::string> ids(size_t index) const;
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

struct HarnessOptions {
  /// The app's data directory (HostLayout); empty: a temporary one of the harness's own.
  std::filesystem::path root{};
  bool siteId = true;
  /// The host's site ID, used when the plist gives none.
  std::optional<std::string> hostSiteId = std::nullopt;
  bool consent = true;
  /// The kernel source starts the real route monitor (for tests in a network namespace).
  VNTRReachability::Source reachabilitySource = VNTRReachability::Source::host;
};

/// An isolated runtime: a data directory, one manual queue serving as main and store queue
/// (stepped by the test), a recording transport, a recording delegate, pinned facts. Two
/// harnesses over the same root, one after the other, are two launches of one app.
class Harness {
 public:
  explicit Harness(HarnessOptions options = {});
  ~Harness();

  /// Queues `n` high-priority events through the sync-event path (past the intake's checks), one
  /// clock millisecond apart, and runs the store work.
  void storeEvents(int n);
  /// `n` calls through intake with eventData {"seq": nextSeq++}; their store work runs.
  void fire(int n);
  /// One batch now, answered as the transport's mode says.
  void sendBatch();
  int64_t storedCount();
  EventDataManager::StoreKind storeKind();
  /// Every event id stored, newest first.
  std::vector<std::string> storedIds();

  TempDir dir;
  HostLayout layout;
  std::shared_ptr<ManualExecutor> queue;
  std::shared_ptr<RecordingTransport> transport;
  std::shared_ptr<UserDefaults> defaults;
  std::shared_ptr<RecordingDelegate> delegate;
  std::unique_ptr<Runtime> runtime;
  int64_t nextSeq = 0;
};

struct LiveRuntimeOptions {
  /// Stores IABConsent_SubjectToGDPR = "0" (no consent needed) before anything decides consent.
  bool notSubjectToGdpr = true;
  /// Where a consent check goes; a loopback port with nothing behind it unless a test serves one.
  std::string consentCheckURL = "http://127.0.0.1:9/gdpr/check/json/current";
  /// The requester, made at once, waits this long for its first batch and between batches until
  /// a server answer changes it, so tests need not sit through the 2 s default. Nothing: the
  /// requester is left to the first event to make.
  std::optional<int64_t> batchIntervalMs = 100;
  /// The runtime's queues; nothing: serial queues of its own.
  std::shared_ptr<Executor> mainQueue = nullptr, storeQueue = nullptr;
};

/// A runtime as an application has it, but private to a test: its own main and store queues on
/// library threads, SQLite files under `root` (HostLayout), the real HTTP transport, host
/// reachability starting reachable, pinned device facts, and `delegate` (totals only) installed
/// as the process's delegate while it lives. The server URL is a process-wide preference the test
/// sets itself. Two instances over the same `root`, one after the other, are two launches of one
/// app.
class LiveRuntime {
 public:
  explicit LiveRuntime(const std::filesystem::path& root, LiveRuntimeOptions options = {});
  ~LiveRuntime();

  /// The intake, exactly as VNTRTagManager::fireEvents runs it for the shared runtime.
  void fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                  const nlohmann::json& eventData = nlohmann::json::object());
  /// Requests in the store, after the store work queued so far.
  int64_t storedCount();

  Runtime& runtime() { return *runtime_; }
  UserDefaults& defaults() { return *defaults_; }
  const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(false);

 private:
  std::shared_ptr<UserDefaults> defaults_;
  std::unique_ptr<Runtime> runtime_;
};

/// The stored request bodies of `runtime`, newest first, after the store work queued so far.
std::vector<nlohmann::json> storedRequests(Runtime& runtime);

}  // namespace vntr::test
