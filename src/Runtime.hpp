#pragma once

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
class VNTRTagManager;
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

  explicit Runtime(RuntimeOptions options);
  /// Stops the components' threads in dependency order; work not yet done is dropped.
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  Executor& mainQueue() { return *mainQueue_; }
  const Clock& clock() const { return *clock_; }
  const ProcessPaths& paths() const { return paths_; }

  /// The site ID, read once (its failures are logged once).
  const std::optional<std::string>& siteID();
  VNTRInfo& info();
  UserDefaults& userDefaults() { return *userDefaults_; }
  EventDataManager& store();
  VNTREventFilter& filter();
  VNTRReachability& reachability();
  VNTRRequester& requester();
  VNTRTagManager& tagManager();
  HTTPClientProtocol& httpClient() { return *httpClient_; }
  const HTTPGet& consentGet() const { return consentGet_; }
  /// The consent-check URL as of now: the one given in the options, else the preferences' own,
  /// else the one that belongs to the preferences' server URL. Any thread.
  std::string consentCheckURL() const;

  /// The facts every request carries, computed once at first use (on the store queue).
  const EventFacts& eventFacts();
  const SyncEventEnvironment& syncEventEnvironment();

 private:
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

  std::once_flag siteIDOnce_, infoOnce_, factsOnce_, storeOnce_, filterOnce_, reachabilityOnce_,
      requesterOnce_, tagManagerOnce_, syncEnvironmentOnce_;
  std::optional<std::string> siteID_;
  std::unique_ptr<VNTRInfo> info_;
  std::unique_ptr<EventFacts> eventFacts_;
  std::unique_ptr<EventDataManager> store_;
  std::unique_ptr<VNTREventFilter> filter_;
  std::unique_ptr<VNTRReachability> reachability_;
  std::shared_ptr<VNTRRequester> requester_;
  std::unique_ptr<VNTRTagManager> tagManager_;
  std::unique_ptr<SyncEventEnvironment> syncEnvironment_;
};

}  // namespace vntr
