#include "Runtime.hpp"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <vector>
#include <vntr/UserDefaults.hpp>

#include "core/Extensions.hpp"
#include "core/MainQueue.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRInfo.hpp"
#include "facade/TagManagerCore.hpp"
#include "facade/VNTRTagManagerSiteID.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTRGetEvents.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "platform/linux/Files.hpp"
#include "store/EventDataManager.hpp"
#include "transport/BatchLock.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/HTTPSupport.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {

namespace {
struct SharedRuntimeSettings {
  std::mutex mutex;
  bool created = false;                      // guarded by mutex
  std::optional<uint32_t> hostReachability;  // guarded by mutex
  std::optional<std::string> hostSiteID;     // guarded by mutex
  std::atomic<Runtime*> current{nullptr};    // written under mutex and by the fork child
  std::vector<Runtime*> abandoned;           // parents' runtimes in a forked child; leaked
};

SharedRuntimeSettings& sharedSettings() {
  static auto* const settings = new SharedRuntimeSettings;  // never destroyed
  return *settings;
}

// The child of a fork has none of the parent's threads: it leaves the parent's runtime behind
// (never destroyed, its connections and handles never used) and builds its own at its next
// call. Held across the fork, the mutex keeps a runtime from being half made in the child.
void installForkHandlers() {
  pthread_atfork([] { sharedSettings().mutex.lock(); }, [] { sharedSettings().mutex.unlock(); },
                 [] {
                   auto& settings = sharedSettings();
                   if (auto* parents = settings.current.exchange(nullptr)) {
                     parents->abandonAfterFork();
                     settings.abandoned.push_back(parents);
                   }
                   settings.mutex.unlock();
                 });
}
}  // namespace

Runtime& Runtime::shared() {
  auto& settings = sharedSettings();
  if (auto* runtime = settings.current.load(std::memory_order_acquire)) return *runtime;
  std::scoped_lock lock(settings.mutex);
  if (auto* runtime = settings.current.load(std::memory_order_acquire)) return *runtime;
  RuntimeOptions options;
  if (settings.hostReachability) {
    options.reachabilitySource = VNTRReachability::Source::host;
    options.initialReachabilityFlags = *settings.hostReachability;
  }
  options.siteID = settings.hostSiteID;
  auto* runtime = new Runtime(std::move(options));  // never destroyed
  runtime->processWide_ = true;
  if (!settings.created) {
    // After the runtime's parts have installed theirs: fork takes this mutex first, in the
    // order this function takes it (before the main queue's), and so can never deadlock with it.
    installForkHandlers();
    // Registered after the transport's own exit handler (made by the constructor), so it runs
    // first: the store commits while the transport still works and before anything is torn
    // down. A forked child finishes its own runtime, if it made one, never the parent's.
    std::atexit([] {
      if (auto* current = sharedSettings().current.load(std::memory_order_acquire)) {
        current->finishAtExit();
      }
    });
  }
  settings.created = true;
  settings.current.store(runtime, std::memory_order_release);
  return *runtime;
}

void Runtime::abandonAfterFork() {
  // Only the store needs a word: SQLite must not keep the parent's connection in this process.
  // The rest (threads that are gone, curl handles, sockets, queued work) is simply never used;
  // the file of calls waiting for the parent's store is closed here, the parent keeps its own.
  if (store_) store_->abandonAfterFork();
  if (syncEnvironment_) syncEnvironment_->pending->abandonAfterFork();
}

bool Runtime::useHostReachability(uint32_t initialFlags) {
  auto& settings = sharedSettings();
  std::scoped_lock lock(settings.mutex);
  if (settings.created) return false;
  settings.hostReachability = initialFlags;
  return true;
}

bool Runtime::setHostSiteID(const std::string& siteID) {
  if (siteID.empty() || !isValidUTF8(siteID)) {
    Debug(VantrelLogLevel::error, "setSiteID: the site ID must be non-empty UTF-8 text; ignored.");
    return false;
  }
  auto& settings = sharedSettings();
  std::scoped_lock lock(settings.mutex);
  if (settings.created) {
    Debug(VantrelLogLevel::error,
          "setSiteID: called after the library's first use; the site ID stays as it is.");
    return false;
  }
  settings.hostSiteID = siteID;
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
    : liveness_(std::make_shared<Liveness>()),
      ownerPid_(::getpid()),
      mainQueue_(options.mainQueue ? std::move(options.mainQueue) : processMainQueue()),
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
      retryBackoff_(std::move(options.retryBackoff)),
      hostSiteID_(std::move(options.siteID)) {
  liveness_->runtime = this;
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
  {
    std::scoped_lock lock(liveness_->mutex);  // waits for a requester start-up in progress
    liveness_->runtime = nullptr;
  }
  // Threads first, in the order that keeps their callbacks' targets alive. Route changes go
  // first: their hook reaches the requester (and may create it), so it must not run while
  // anything is being destroyed. Then the consent check and batch replies (transport), then
  // queued store work.
  if (reachability_) reachability_->stopMonitor();
  tagManager_.reset();
  consentGet_ = nullptr;
  if (requester_) {
    requester_->detach();
    requester_->setHttpClient(nullptr);
  }
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
  std::call_once(siteIDOnce_, [this] {
    siteID_ = loadSiteID(paths_.mainBundleDirectory);
    if (!siteID_ && hostSiteID_) {
      Debug(VantrelLogLevel::info, "Using the site ID set by the application.");
      siteID_ = hostSiteID_;
    }
  });
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
    createdStore_.store(store_.get());
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
    createdReachability_.store(reachability_.get());
  });
  return *reachability_;
}

const SyncEventEnvironment& Runtime::syncEventEnvironment() {
  std::call_once(syncEnvironmentOnce_, [this] {
    syncEnvironment_ = std::make_unique<SyncEventEnvironment>(
        SyncEventEnvironment{store(), [this]() -> const EventFacts& { return eventFacts(); },
                             [this] { return reachability().connectionType(); }, clock_,
                             std::make_shared<PendingBuilds>(paths_.documentsDirectory)});
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
    // Without a directory the queue lives in memory and is this process's alone.
    auto batchLock = paths_.documentsDirectory.empty()
                         ? nullptr
                         : std::make_shared<BatchLock>(joinPath(paths_.documentsDirectory,
                                                                "requests_Data.sqlite-batchlock"));
    requester_ = std::make_shared<VNTRRequester>(
        *mainQueue_, events, reach, httpClient_, std::move(makeGetEvents),
        [] { return VNTRPreferences::sharedPreferences().serverURL(); }, retryBackoff_,
        RetryBackoff::Random{}, std::move(batchLock));
    requester_->setBatchEndedObserver([this] { noteBatchEnded(); });
    createdRequester_.store(requester_.get());
  });
  return *requester_;
}

void Runtime::fireRequester(bool now) {
  if (auto* sender = createdRequester_.load()) {
    now ? sender->fireNow() : sender->fire();
    return;
  }
  // Made on the store queue, behind the store's opening (no batch could go before it anyway):
  // the host's thread starts no thread but the store's. Calls made before it exists share one
  // task, which does what they asked for, so a burst queues no task per call.
  const uint8_t asked = now ? kFireNow : kFire;
  if (requesterAsked_.fetch_or(asked) != 0) return;
  storeQueue_->post([liveness = liveness_] {
    std::scoped_lock lock(liveness->mutex);
    auto* runtime = liveness->runtime;
    if (runtime == nullptr || runtime->isShutDown()) return;
    const uint8_t wanted = runtime->requesterAsked_.exchange(0);
    if ((wanted & kFire) != 0) runtime->requester().fire();
    if ((wanted & kFireNow) != 0) runtime->requester().fireNow();
  });
}

TagManagerCore& Runtime::tagManager() {
  std::call_once(tagManagerOnce_,
                 [this] { tagManager_ = std::make_unique<TagManagerCore>(*this); });
  return *tagManager_;
}

}  // namespace vntr
