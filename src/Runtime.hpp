#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vntr/Executor.hpp>

#include "core/Clock.hpp"
#include "core/ProcessSettings.hpp"
#include "transport/HTTPClientProtocol.hpp"
#include "transport/VNTRReachability.hpp"

namespace vntr {

class DeviceFactsSource;
class EventDataManager;
class HTTPClient;
class UserDefaults;
class VNTREventFilter;
class VNTRInfo;
class VNTRRequester;
class TagManagerCore;
struct EventFacts;
struct GetEventsEnvironment;
struct SyncEventEnvironment;

/// A plain GET, for the consent check.
using HTTPGet = std::function<void(const std::string& url, HTTPCompletion completion)>;

/// What a runtime is built from. Empty members take the process defaults.
struct RuntimeOptions {
  std::shared_ptr<Executor> mainQueue;             // default: the process main queue
  std::shared_ptr<Executor> storeQueue;            // default: a library thread "VNTRStore"
  std::shared_ptr<const Clock> clock;              // default: the system clock
  std::optional<ProcessPaths> paths;               // default: processPaths()
  std::shared_ptr<DeviceFactsSource> facts;        // default: the Linux facts
  std::shared_ptr<HTTPClientProtocol> httpClient;  // default: one HTTPClient for everything
  HTTPGet consentGet;                              // default: that HTTPClient's get
  std::shared_ptr<UserDefaults> userDefaults;      // default: the standard user defaults
  VNTRReachability::Source reachabilitySource = VNTRReachability::Source::kernel;
  uint32_t initialReachabilityFlags = 0;  // for Source::host
  std::string consentCheckURL;            // default: the preferences' (read at each check)
  std::function<bool()> retryBackoff;     // default: the preferences' (read after each reply)
  std::optional<std::string> siteID;      // used when the property list gives none
};

/// The composition root: owns one of each component and wires them together. Components are
/// created on first use, like the process-wide instances they stand for: the store at the first
/// event, the requester when first started. The process-wide runtime (`shared()`) is never
/// destroyed; tests build their own over temporary directories, fake clocks and manual queues.
class Runtime {
 public:
  static Runtime& shared();
  /// Makes the process-wide runtime take reachability from the host (`updateFlags`) instead of
  /// the kernel, starting from `initialFlags`. Only before the runtime is first used; false
  /// afterwards.
  static bool useHostReachability(uint32_t initialFlags);
  /// The site ID the process-wide runtime uses when the property list gives none. Only before
  /// that runtime is first used, and not empty; false with a log line otherwise.
  static bool setHostSiteID(const std::string& siteID);

  /// Logged for every call refused after `shutdown`.
  static constexpr const char* kShutDownLine =
      "The VNTR Tag Manager has been shut down.  The call is refused.";
  /// How `flush` or `shutdown` ended.
  enum class FlushResult { empty, timedOut, shutDown };

  explicit Runtime(RuntimeOptions options);
  /// In a forked child, on its only thread: lets go of what belongs to the parent without
  /// writing through it. The runtime is not used afterwards.
  void abandonAfterFork();
  /// Stops the components' threads in dependency order; work not yet done is dropped.
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  Executor& mainQueue() { return *mainQueue_; }
  const Clock& clock() const { return *clock_; }
  const ProcessPaths& paths() const { return paths_; }

  /// The site ID, read once (its failures are logged once): the property list's, else the one
  /// given in the options.
  const std::optional<std::string>& siteID();
  VNTRInfo& info();
  UserDefaults& userDefaults() { return *userDefaults_; }
  EventDataManager& store();
  VNTREventFilter& filter();
  VNTRReachability& reachability();
  VNTRRequester& requester();
  /// Asks for a batch: the requester's `fireNow` when `now`, else its `fire`. Until the requester
  /// exists it is made on the store queue, so a host's first event waits neither for the route
  /// monitor's first read nor for anything else the requester needs. Any thread.
  void fireRequester(bool now);
  TagManagerCore& tagManager();
  HTTPClientProtocol& httpClient() { return *httpClient_; }
  const HTTPGet& consentGet() const { return consentGet_; }
  /// The consent-check URL as of now: the one given in the options, else the preferences' own,
  /// else the one that belongs to the preferences' server URL. Any thread.
  std::string consentCheckURL() const;

  // --- lifecycle (RuntimeLifecycle.cpp) ---

  /// Stores every accepted call, asks for a batch at once (when reachable) and waits until the
  /// queue is empty or `timeout` has passed. Called from a library thread or from inside a host
  /// callback it cannot wait for the threads it would wait on: it only asks for the batch and
  /// returns `timedOut`. `shutDown` (and a log line) once the runtime was shut down. Any thread.
  FlushResult flush(std::chrono::milliseconds timeout);
  /// Refuses every later call, flushes (as `flush`), then stops the batch timer, the transport,
  /// the route monitor and the library's own queues and, for the process-wide runtime, stops
  /// and releases the host's callbacks. `shutDown` when it had been shut down already. Any
  /// thread; from inside a callback it does not wait for the thread it runs on.
  FlushResult shutdown(std::chrono::milliseconds timeout);
  /// True once `shutdown` has begun.
  bool isShutDown() const { return shutDown_.load(); }
  /// The process-wide runtime's exit hook: commits every accepted build (waiting at most
  /// kExitCommitTimeout), then stops the host's callbacks (at once, unless the host asked for
  /// them at exit). Registered at first use.
  void finishAtExit();
  static constexpr auto kExitCommitTimeout = std::chrono::seconds(5);

  /// The facts every request carries, computed once at first use (on the store queue).
  const EventFacts& eventFacts();
  const SyncEventEnvironment& syncEventEnvironment();

 private:
  bool waitUntilStored(std::chrono::steady_clock::time_point deadline, int64_t& count);
  FlushResult flushUntil(std::chrono::steady_clock::time_point deadline);
  void stopThreads(std::chrono::steady_clock::time_point deadline);
  void noteBatchEnded();

  // Shared with the requester's start-ups queued on the store queue, which may run when the
  // runtime is gone: the destructor clears `runtime` under the mutex.
  struct Liveness {
    std::mutex mutex;
    Runtime* runtime = nullptr;  // guarded by mutex
  };

  bool processWide_ = false;  // set once by shared(), before the runtime is published
  std::shared_ptr<Liveness> liveness_;
  // The process whose threads these are. A child forked from it inherits the runtime without
  // its threads: waiting on them there would only run into the timeout.
  std::atomic<pid_t> ownerPid_;
  std::atomic<bool> shutDown_{false};
  std::atomic<EventDataManager*> createdStore_{nullptr};  // store_, once made
  std::atomic<VNTRRequester*> createdRequester_{nullptr};
  // What calls made before the requester existed asked of it; the task that makes it clears it.
  static constexpr uint8_t kFire = 1;
  static constexpr uint8_t kFireNow = 2;
  std::atomic<uint8_t> requesterAsked_{0};
  std::atomic<VNTRReachability*> createdReachability_{nullptr};
  std::mutex batchMutex_;
  std::condition_variable batchEnded_;
  uint64_t batchesEnded_ = 0;  // guarded by batchMutex_

  std::shared_ptr<Executor> mainQueue_;
  std::shared_ptr<Executor> storeQueue_;
  std::shared_ptr<const Clock> clock_;
  ProcessPaths paths_;
  std::shared_ptr<DeviceFactsSource> factsSource_;
  std::shared_ptr<HTTPClient> network_;  // the default transport, when one was made
  std::shared_ptr<HTTPClientProtocol> httpClient_;
  HTTPGet consentGet_;
  std::shared_ptr<UserDefaults> userDefaults_;
  VNTRReachability::Source reachabilitySource_;
  uint32_t initialReachabilityFlags_;
  std::string consentCheckURL_;
  std::function<bool()> retryBackoff_;
  std::optional<std::string> hostSiteID_;

  std::once_flag siteIDOnce_, infoOnce_, factsOnce_, storeOnce_, filterOnce_, reachabilityOnce_,
      requesterOnce_, tagManagerOnce_, syncEnvironmentOnce_;
  std::optional<std::string> siteID_;
  std::unique_ptr<VNTRInfo> info_;
  std::unique_ptr<EventFacts> eventFacts_;
  std::unique_ptr<EventDataManager> store_;
  std::unique_ptr<VNTREventFilter> filter_;
  std::unique_ptr<VNTRReachability> reachability_;
  std::shared_ptr<VNTRRequester> requester_;
  std::unique_ptr<TagManagerCore> tagManager_;
  std::unique_ptr<SyncEventEnvironment> syncEnvironment_;
};

}  // namespace vntr
