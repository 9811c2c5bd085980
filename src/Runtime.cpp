#include "Runtime.hpp"

#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "core/Extensions.hpp"
#include "core/MainQueue.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRInfo.hpp"
#include "facade/VNTRTagManagerSiteID.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTRGetEvents.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/HTTPSupport.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {

namespace {
struct SharedRuntimeSettings {
  std::mutex mutex;
  bool created = false;                      // guarded by mutex
  std::optional<uint32_t> hostReachability;  // guarded by mutex
};

SharedRuntimeSettings& sharedSettings() {
  static auto* const settings = new SharedRuntimeSettings;  // never destroyed
  return *settings;
}
}  // namespace

Runtime& Runtime::shared() {
  static auto* const runtime = [] {
    RuntimeOptions options;
    auto& settings = sharedSettings();
    std::scoped_lock lock(settings.mutex);
    settings.created = true;
    if (settings.hostReachability) {
      options.reachabilitySource = VNTRReachability::Source::host;
      options.initialReachabilityFlags = *settings.hostReachability;
    }
    return new Runtime(std::move(options));  // never destroyed
  }();
  return *runtime;
}

bool Runtime::useHostReachability(uint32_t initialFlags) {
  auto& settings = sharedSettings();
  std::scoped_lock lock(settings.mutex);
  if (settings.created) return false;
  settings.hostReachability = initialFlags;
  return true;
}

namespace {

std::shared_ptr<Executor> processMainQueue() {
  // The process main queue is never destroyed; the shared_ptr only borrows it.
  return std::shared_ptr<Executor>(&mainQueue(), [](Executor*) {});
}

std::shared_ptr<UserDefaults> standardUserDefaults() {
  return std::shared_ptr<UserDefaults>(&UserDefaults::standardUserDefaults(), [](UserDefaults*) {});
}

}  // namespace

Runtime::Runtime(RuntimeOptions options)
    : mainQueue_(options.mainQueue ? std::move(options.mainQueue) : processMainQueue()),
      storeQueue_(options.storeQueue ? std::move(options.storeQueue)
                                     : std::make_shared<SerialExecutor>("VNTRStore")),
      clock_(options.clock ? std::move(options.clock) : std::make_shared<SystemClock>()),
      paths_(options.paths ? std::move(*options.paths) : processPaths()),
      factsSource_(options.facts ? std::move(options.facts)
                                 : makeLinuxDeviceFacts(paths_.mainBundleDirectory)),
      httpClient_(std::move(options.httpClient)),
      consentGet_(std::move(options.consentGet)),
      userDefaults_(options.userDefaults ? std::move(options.userDefaults)
                                         : standardUserDefaults()),
      reachabilitySource_(options.reachabilitySource),
      initialReachabilityFlags_(options.initialReachabilityFlags),
      consentCheckURL_(std::move(options.consentCheckURL)),
      retryBackoff_(std::move(options.retryBackoff)) {
  if (!retryBackoff_) {
    retryBackoff_ = [] { return VNTRPreferences::sharedPreferences().retryBackoff(); };
  }
  if (!httpClient_ || !consentGet_) network_ = std::make_shared<HTTPClient>();
  if (!httpClient_) httpClient_ = network_;
  if (!consentGet_) {
    consentGet_ = [network = network_](const std::string& url, HTTPCompletion completion) {
      network->get(url, std::move(completion));
    };
  }
}

Runtime::~Runtime() {
  // Threads first, in the order that keeps their callbacks' targets alive. Route changes go
  // first: their hook reaches the requester (and may create it), so it must not run while
  // anything is being destroyed. Then the consent check and batch replies (transport), then
  // queued store work.
  if (reachability_) reachability_->stopMonitor();
  tagManager_.reset();
  consentGet_ = nullptr;
  if (requester_) requester_->setHttpClient(nullptr);
  httpClient_.reset();
  network_.reset();
  // Event builds still queued read the connection type: let them finish first.
  if (store_) store_->performAndWait([] {});
  reachability_.reset();
  requester_.reset();
  store_.reset();
}

std::string Runtime::consentCheckURL() const {
  if (!consentCheckURL_.empty()) return consentCheckURL_;
  const auto& preferences = VNTRPreferences::sharedPreferences();
  if (auto url = preferences.consentCheckURL(); !url.empty()) return url;
  return consentCheckURLFor(preferences.serverURL());
}

const std::optional<std::string>& Runtime::siteID() {
  std::call_once(siteIDOnce_, [this] { siteID_ = loadSiteID(paths_.mainBundleDirectory); });
  return siteID_;
}

VNTRInfo& Runtime::info() {
  std::call_once(infoOnce_, [this] {
    auto clock = clock_;
    info_ = std::make_unique<VNTRInfo>(factsSource_, [clock] { return clock->now(); });
  });
  return *info_;
}

const EventFacts& Runtime::eventFacts() {
  std::call_once(factsOnce_, [this] {
    auto facts = std::make_unique<EventFacts>();
    auto& i = info();
    facts->siteId = siteID();
    facts->appId = i.bundleIdentifier();
    facts->os = i.vntrOSAndVersion();
    facts->lang = i.language();
    facts->idfa = i.idfa();
    facts->idfv = i.idfv();
    facts->dnt = i.trackingDisabled();
    facts->hardware = i.hardware();
    facts->appInstallTime = timestamp(i.firstInstall());
    facts->sdkVersion = i.sdkVersion();
    eventFacts_ = std::move(facts);
  });
  return *eventFacts_;
}

EventDataManager& Runtime::store() {
  std::call_once(storeOnce_, [this] {
    store_ = std::make_unique<EventDataManager>(paths_.documentsDirectory, storeQueue_, clock_);
  });
  return *store_;
}

VNTREventFilter& Runtime::filter() {
  std::call_once(filterOnce_, [this] {
    filter_ =
        std::make_unique<VNTREventFilter>(userDefaults_->doubleForKey("VNTREventsExpiry"), clock_);
  });
  return *filter_;
}

VNTRReachability& Runtime::reachability() {
  std::call_once(reachabilityOnce_, [this] {
    reachability_ =
        std::make_unique<VNTRReachability>(reachabilitySource_, initialReachabilityFlags_);
    // The requester is made on the first reachable update if nothing has made it yet.
    reachability_->setOnReachable([this] { requester().fireNow(); });
  });
  return *reachability_;
}

const SyncEventEnvironment& Runtime::syncEventEnvironment() {
  std::call_once(syncEnvironmentOnce_, [this] {
    syncEnvironment_ = std::make_unique<SyncEventEnvironment>(
        SyncEventEnvironment{store(), [this]() -> const EventFacts& { return eventFacts(); },
                             [this] { return reachability().connectionType(); }, clock_});
  });
  return *syncEnvironment_;
}

VNTRRequester& Runtime::requester() {
  std::call_once(requesterOnce_, [this] {
    auto& events = store();
    auto& reach = reachability();
    auto& qualified = filter();
    auto makeGetEvents = [this, &events, &qualified]() -> std::shared_ptr<VNTRMethodProtocol> {
      GetEventsEnvironment env;
      env.store = &events;
      env.facts = [this]() -> const EventFacts& { return eventFacts(); };
      env.filter = &qualified;
      std::weak_ptr<VNTRRequester> weak = requester_;
      env.setBatchInterval = [weak](int64_t ms) {
        if (auto r = weak.lock()) r->setBatchInterval(ms);
      };
      return VNTRGetEvents::make(env);
    };
    requester_ = std::make_shared<VNTRRequester>(
        *mainQueue_, events, reach, httpClient_, std::move(makeGetEvents),
        [] { return VNTRPreferences::sharedPreferences().serverURL(); }, retryBackoff_);
  });
  return *requester_;
}

VNTRTagManager& Runtime::tagManager() {
  std::call_once(tagManagerOnce_,
                 [this] { tagManager_ = std::make_unique<VNTRTagManager>(*this); });
  return *tagManager_;
}

}  // namespace vntr
