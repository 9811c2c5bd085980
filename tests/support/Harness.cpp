#include "support/Harness.hpp"

#include <fstream>

#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"

namespace vntr::test {

void RecordingTransport::post(std::string body, const std::string& url, HTTPCompletion completion) {
  {
    std::scoped_lock lock(mutex_);
    bodies_.push_back(body);
  }
  switch (mode) {
    case Mode::mock:
      mock.post(std::move(body), url, std::move(completion));
      break;
    case Mode::emptyAnswer:
      completion(std::string("[]"), HTTPURLResponse{url, 200}, std::nullopt);
      break;
    case Mode::fail:
      completion(std::nullopt, std::nullopt, HTTPError{"CURL", 7, "Couldn't connect to server"});
      break;
    case Mode::hold: {
      std::scoped_lock lock(mutex_);
      held_.emplace_back(std::move(body), std::move(completion));
      break;
    }
  }
}

void RecordingTransport::releaseHeld(bool fail) {
  std::vector<std::pair<std::string, HTTPCompletion>> held;
  {
    std::scoped_lock lock(mutex_);
    held.swap(held_);
  }
  for (auto& [body, completion] : held) {
    if (fail) {
      completion(std::nullopt, std::nullopt, HTTPError{"CURL", 7, "Couldn't connect to server"});
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

std::vector<std::string> RecordingTransport::bodies() const {
  std::scoped_lock lock(mutex_);
  return bodies_;
}

size_t RecordingTransport::batches() const {
  std::scoped_lock lock(mutex_);
  return bodies_.size();
}

void RecordingDelegate::notifyForStatistic(int64_t statistic, int64_t adjustment) {
  std::scoped_lock lock(mutex_);
  calls_.emplace_back(statistic, adjustment);
}

std::vector<int64_t> RecordingDelegate::statistics() const {
  std::scoped_lock lock(mutex_);
  std::vector<int64_t> values;
  for (const auto& call : calls_) values.push_back(call.first);
  return values;
}

int64_t RecordingDelegate::total(int64_t statistic) const {
  std::scoped_lock lock(mutex_);
  int64_t sum = 0;
  for (const auto& [s, adjustment] : calls_) {
    if (s == statistic) sum += adjustment;
  }
  return sum;
}

void RecordingDelegate::clear() {
  std::scoped_lock lock(mutex_);
  calls_.clear();
}

namespace {
void writeSiteIdPlist(const std::filesystem::path& directory) {
  std::filesystem::create_directories(directory);
  std::ofstream(directory / "VantrelTagManagerSDKInfo.plist")
      << R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>VantrelSiteID</key><string>12345</string></dict></plist>
)";
}
}  // namespace

Harness::Harness(HarnessOptions options)
    : queue(std::make_shared<ManualExecutor>()),
      transport(std::make_shared<RecordingTransport>()),
      delegate(std::make_shared<RecordingDelegate>()),
      facts(std::make_shared<FakeFacts>()) {
  ProcessPaths paths{dir / "bundle", dir / "documents", dir / "config" / "defaults.json"};
  std::filesystem::create_directories(paths.mainBundleDirectory);
  std::filesystem::create_directories(paths.documentsDirectory);
  if (options.siteId) writeSiteIdPlist(paths.mainBundleDirectory);
  defaults = std::make_shared<UserDefaults>(paths.userDefaultsFile);
  if (options.consent) defaults->setString("IABConsent_SubjectToGDPR", "0");
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  RuntimeOptions runtimeOptions;
  runtimeOptions.mainQueue = queue;
  runtimeOptions.storeQueue = queue;
  runtimeOptions.clock = queue->sharedClock();
  runtimeOptions.paths = paths;
  runtimeOptions.facts = facts;
  runtimeOptions.httpClient = transport;
  runtimeOptions.consentGet = [](const std::string&, HTTPCompletion completion) {
    completion(std::nullopt, std::nullopt, HTTPError{"CURL", 7, "offline in tests"});
  };
  runtimeOptions.userDefaults = defaults;
  runtimeOptions.reachabilitySource = options.reachabilitySource;
  runtimeOptions.initialReachabilityFlags = options.reachabilityFlags;
  runtimeOptions.siteID = options.hostSiteId;
  runtime = std::make_unique<Runtime>(std::move(runtimeOptions));
}

Harness::~Harness() {
  runtime.reset();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
}

void Harness::storeEvents(int n, const std::string& prefix) {
  const auto& env = runtime->syncEventEnvironment();
  for (int i = 0; i < n; ++i) {
    VNTRSyncEvent::createEvent(env, {prefix + std::to_string(i)}, "group", nlohmann::json::object(),
                               VNTREventPriority::high);
    queue->runUntilIdle();
    queue->clock().advance(std::chrono::milliseconds(1));
  }
}

int64_t Harness::storedCount() {
  int64_t n = 0;
  runtime->store().performAndWait([&] { n = runtime->store().count(); });
  return n;
}

std::vector<std::string> Harness::storedIds() {
  std::vector<std::string> ids;
  runtime->store().performAndWait([&] {
    for (const auto& event : runtime->store().deQueue(1'000'000)) ids.push_back(event->id());
  });
  return ids;
}

}  // namespace vntr::test
