#include "support/Harness.hpp"

#include "core/SerialExecutor.hpp"
#include "facade/TagManagerCore.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {

namespace {

const HTTPError kOffline{"CURL", 7, "Couldn't connect to server"};

// What every test runtime shares: the host's directories (with the site ID's property list when
// `siteId`), user defaults saying the user is not subject to GDPR when `consent`, pinned device
// facts, and host-reported reachability starting reachable.
RuntimeOptions hostOptions(const HostLayout& layout, std::shared_ptr<UserDefaults>& defaults,
                           bool siteId, bool consent) {
  std::filesystem::create_directories(layout.bundle);
  std::filesystem::create_directories(layout.documents);
  if (siteId) writeSiteID(layout.bundle);
  defaults = std::make_shared<UserDefaults>(layout.defaults);
  if (consent) defaults->setString("IABConsent_SubjectToGDPR", "0");
  RuntimeOptions options;
  options.paths = layout.paths();
  options.facts = std::make_shared<FakeFacts>();
  options.userDefaults = defaults;
  options.reachabilitySource = VNTRReachability::Source::host;
  options.initialReachabilityFlags = VNTRReachability::kReachable;
  return options;
}

}  // namespace

void RecordingTransport::post(std::string body, const std::string& url, HTTPCompletion completion) {
  {
    std::scoped_lock lock(mutex_);
    bodies_.push_back(body);
    if (mode == Mode::hold) {
      held_.emplace_back(std::move(body), std::move(completion));
      return;
    }
  }
  mock.post(std::move(body), url, std::move(completion));
}

void RecordingTransport::releaseHeld(bool fail) {
  std::vector<std::pair<std::string, HTTPCompletion>> held;
  {
    std::scoped_lock lock(mutex_);
    held.swap(held_);
  }
  for (auto& [body, completion] : held) {
    if (fail) {
      completion(std::nullopt, std::nullopt, kOffline);
    } else {
      mock.post(body, "http://127.0.0.1/tags", completion);
    }
  }
}

std::vector<std::string> RecordingTransport::ids(size_t index) const {
  std::scoped_lock lock(mutex_);
  std::vector<std::string> ids;
  for (const auto& member : nlohmann::json::parse(bodies_.at(index))) {
    ids.push_back(member.value("method", "") == "getEvents" ? "getEvents"
                                                            : member["id"].get<std::string>());
  }
  return ids;
}

size_t RecordingTransport::batches() const {
  std::scoped_lock lock(mutex_);
  return bodies_.size();
}

Harness::Harness(HarnessOptions options)
    : layout(options.root.empty() ? dir.path() : options.root),
      queue(std::make_shared<ManualExecutor>()),
      transport(std::make_shared<RecordingTransport>()),
      delegate(std::make_shared<RecordingDelegate>()) {
  RuntimeOptions runtimeOptions = hostOptions(layout, defaults, options.siteId, options.consent);
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  runtimeOptions.mainQueue = queue;
  runtimeOptions.storeQueue = queue;
  runtimeOptions.clock = queue->sharedClock();
  runtimeOptions.httpClient = transport;
  runtimeOptions.consentGet = [](const std::string&, HTTPCompletion completion) {
    completion(std::nullopt, std::nullopt, kOffline);
  };
  runtimeOptions.reachabilitySource = options.reachabilitySource;
  runtimeOptions.siteID = options.hostSiteId;
  runtime = std::make_unique<Runtime>(std::move(runtimeOptions));
}

Harness::~Harness() {
  runtime.reset();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
}

void Harness::storeEvents(int n) {
  const auto& env = runtime->syncEventEnvironment();
  for (int i = 0; i < n; ++i) {
    VNTRSyncEvent::createEvent(env, {"event" + std::to_string(i)}, "group",
                               nlohmann::json::object(), VNTREventPriority::high);
    queue->runUntilIdle();
    queue->clock().advance(std::chrono::milliseconds(1));
  }
}

void Harness::fire(int n) {
  for (int i = 0; i < n; ++i) {
    runtime->tagManager().fireEvents({"fault"}, "storage", {{"seq", nextSeq++}},
                                     VNTREventPriority::high, /*startRequester=*/false);
    queue->runUntilIdle();
  }
}

void Harness::sendBatch() {
  runtime->requester().fireNow();
  queue->runUntilIdle();
}

// The store is made at first use and opens on its queue.
EventDataManager::StoreKind Harness::storeKind() {
  auto& store = runtime->store();
  queue->runUntilIdle();
  return store.kind();
}

int64_t Harness::storedCount() {
  runtime->store();
  queue->runUntilIdle();
  int64_t n = 0;
  runtime->store().performAndWait([&] { n = runtime->store().count(); });
  return n;
}

std::vector<std::string> Harness::storedIds() {
  std::vector<std::string> ids;
  runtime->store().performAndWait([&] {
    for (const auto& event : runtime->store().deQueue(0)) ids.push_back(event->id());
  });
  return ids;
}

LiveRuntime::LiveRuntime(const std::filesystem::path& root, LiveRuntimeOptions options) {
  RuntimeOptions runtimeOptions =
      hostOptions(HostLayout(root), defaults_, /*siteId=*/true, options.notSubjectToGdpr);
  runtimeOptions.mainQueue =
      options.mainQueue ? options.mainQueue : std::make_shared<SerialExecutor>("TestMain");
  runtimeOptions.storeQueue =
      options.storeQueue ? options.storeQueue : std::make_shared<SerialExecutor>("TestStore");
  runtimeOptions.consentCheckURL = options.consentCheckURL;
  runtime_ = std::make_unique<Runtime>(std::move(runtimeOptions));

  // Made now rather than by the first event, so the pacing is in place before anything fires.
  if (options.batchIntervalMs) {
    auto& requester = runtime_->requester();
    requester.setBatchInterval(*options.batchIntervalMs);
    requester.nextBatchInterval.store(static_cast<double>(*options.batchIntervalMs) / 1000.0);
  }
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
}

LiveRuntime::~LiveRuntime() {
  runtime_.reset();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
}

void LiveRuntime::fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                             const nlohmann::json& eventData) {
  runtime_->tagManager().fireEvents(events, eventGroup, eventData, VNTREventPriority::high, true);
}

int64_t LiveRuntime::storedCount() {
  auto& store = runtime_->store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

std::vector<nlohmann::json> storedRequests(Runtime& runtime) {
  std::vector<nlohmann::json> requests;
  auto& store = runtime.store();
  store.performAndWait([&] {
    for (const auto& event : store.deQueue(0)) {
      requests.push_back(nlohmann::json::parse(event->jsonData(), nullptr, false));
    }
  });
  return requests;
}

}  // namespace vntr::test
