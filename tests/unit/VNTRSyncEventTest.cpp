#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <thread>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "core/SerialExecutor.hpp"
#include "model/RequestSizeLimit.hpp"
#include "model/Uuid.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::rowsOnDisk;

/// Records each statistic with the number of requests on disk at that moment.
class RecordingDelegate : public VNTRTagManagerDelegate {
 public:
  explicit RecordingDelegate(fs::path file) : file_(std::move(file)) {}
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    const int64_t onDisk = rowsOnDisk(file_);
    std::scoped_lock lock(mutex_);
    EXPECT_EQ(adjustment, 1);
    seen_.push_back({statistic, onDisk});
  }
  std::vector<std::pair<int64_t, int64_t>> seen() {
    std::scoped_lock lock(mutex_);
    return seen_;
  }
  size_t count(int64_t statistic) {
    size_t n = 0;
    for (const auto& entry : seen()) n += entry.first == statistic ? 1 : 0;
    return n;
  }

 private:
  fs::path file_;
  std::mutex mutex_;
  std::vector<std::pair<int64_t, int64_t>> seen_;
};

class SyncEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    facts.siteId = "12345";
    facts.appId = "com.example.app";
    facts.os = "Linux 12";
    facts.lang = "en-US";
    facts.idfa = "00000000-0000-0000-0000-000000000000";
    facts.idfv = "0F0E0D0C-0B0A-4908-8706-050403020100";
    facts.dnt = true;
    facts.hardware = "x86_64";
    facts.appInstallTime = "20190301120000";
    facts.sdkVersion = "0.1.0";
    VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  }
  void TearDown() override {
    if (store) queue->runUntilIdle();
    VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
  }
  void open(EventDataManager::AttemptFilter filter = {}) {
    store.emplace(dir.path(), queue, clock, std::move(filter));
    env.emplace(SyncEventEnvironment{*store, [this]() -> const EventFacts& { return facts; },
                                     [] { return "wifi"; }, clock});
    queue->runUntilIdle();
  }
  std::vector<std::shared_ptr<VNTRSyncEvent>> stored() {
    std::vector<std::shared_ptr<VNTRSyncEvent>> events;
    store->performAndWait([&] { events = store->deQueue(0); });
    return events;
  }
  void fire(json eventData, std::vector<std::string> events = {"checkout"},
            VNTREventPriority priority = VNTREventPriority::high) {
    VNTRSyncEvent::createEvent(*env, std::move(events), "purchase", std::move(eventData), priority);
    queue->runUntilIdle();
  }

  test::TempDir dir;
  fs::path file = dir / "requests_Data.sqlite";
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();  // 2023-11-14 22:13:20 UTC
  std::shared_ptr<ManualExecutor> queue = std::make_shared<ManualExecutor>(clock);
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(file);
  EventFacts facts;
  std::optional<EventDataManager> store;
  std::optional<SyncEventEnvironment> env;
};

TEST_F(SyncEventTest, requestCarriesExactlyTheTemplateCallAndDeviceMembers) {
  open();
  test::CapturingLog log;
  VNTRSyncEvent::createEvent(*env, {"checkout", "pay"}, "purchase", {{"price", 9.99}},
                             VNTREventPriority::high);
  EXPECT_EQ(rowsOnDisk(file), 0);  // createEvent only queues the work
  queue->runUntilIdle();
  const auto lines = log.lines();

  const auto events = stored();
  ASSERT_EQ(events.size(), 1u);
  const auto& event = *events[0];
  EXPECT_TRUE(std::regex_match(event.id(), std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")))
      << event.id();
  EXPECT_DOUBLE_EQ(event.timeStamp(), referenceDateSeconds(clock->now()));
  const json expected = {
      {"jsonrpc", "2.0"},
      {"method", "syncEvent"},
      {"id", event.id()},
      {"params",
       {{"siteId", "12345"},
        {"appId", "com.example.app"},
        {"eventData", {{"price", 9.99}}},
        {"eventGroup", "purchase"},
        {"events", {"checkout", "pay"}},
        {"version", "1.0"},
        {"eventTime", "20231114221320"},
        {"deviceData",
         {{"os", "Linux 12"},
          {"lang", "en-US"},
          {"id", "00000000-0000-0000-0000-000000000000"},
          {"idfv", "0F0E0D0C-0B0A-4908-8706-050403020100"},
          {"dnt", true},
          {"hardware", "x86_64"},
          {"connectionType", "wifi"},
          {"platform", "linux"}}},
        {"appInfo", {{"appInstallTime", "20190301120000"}, {"sdkVersion", "0.1.0"}}}}}};
  EXPECT_EQ(event.jsonData(), expected.dump());  // compact, exactly these members
  EXPECT_EQ(lines, std::vector<std::string>{"[Verbose] Event id " + event.id()});

  fire({{"n", 2}});
  const auto both = stored();
  ASSERT_EQ(both.size(), 2u);
  EXPECT_NE(both[0]->id(), both[1]->id());
}

// Requests are rendered from a cut of the template made once per set of device facts; facts
// that change, that need escaping, or that hold the cut's own marker text must still give the
// request a whole serialisation would.
TEST_F(SyncEventTest, requestTextFollowsTheFactsWhateverTheyHold) {
  open();
  const auto requestAfter = [&](auto change, VNTREventPriority priority) {
    change();
    VNTRSyncEvent::createEvent(*env, {"a\"b", "\xC3\xA9\n"}, "g\\", {{"k", 1}}, priority);
    queue->runUntilIdle();
    const auto events = stored();
    std::string text = events.front()->jsonData();  // the newest
    store->performAndWait([&] {
      store->removeOldest(0);
      store->saveContext();
    });
    return text;
  };
  const std::vector<std::pair<std::string, std::function<void()>>> changes = {
      {"as set up", [] {}},
      {"new site and no app id",
       [&] {
         facts.siteId = "67890";
         facts.appId.reset();
       }},
      {"facts that need escaping", [&] { facts.hardware = "a\"\\\t\x7F\xE2\x82\xAC"; }},
      {"a fact holding a member marker", [&] { facts.os = "\x01vntr-member-2"; }},
      {"a fact quoting a member marker", [&] { facts.lang = "\"\x01vntr-member-4"; }},
  };
  test::CapturingLog log;
  for (const auto priority : {VNTREventPriority::high, VNTREventPriority::low}) {
    for (const auto& [what, change] : changes) {
      SCOPED_TRACE(what);
      const std::string text = requestAfter(change, priority);
      const json request = json::parse(text);
      EXPECT_EQ(request.dump(), text);  // compact, members in order, escaped as the library does
      const json& params = request["params"];
      EXPECT_EQ(request["id"] == "0", priority == VNTREventPriority::low);
      EXPECT_EQ(params["siteId"], *facts.siteId);
      EXPECT_EQ(params.contains("appId"), facts.appId.has_value());
      EXPECT_EQ(params["events"], json({"a\"b", "\xC3\xA9\n"}));
      EXPECT_EQ(params["eventGroup"], "g\\");
      EXPECT_EQ(params["eventData"], json({{"k", 1}}));
      EXPECT_EQ(params["eventTime"], "20231114221320");
      EXPECT_EQ(params["deviceData"]["os"], facts.os);
      EXPECT_EQ(params["deviceData"]["lang"], facts.lang);
      EXPECT_EQ(params["deviceData"]["hardware"], facts.hardware);
      EXPECT_EQ(params["deviceData"]["connectionType"], "wifi");
    }
    facts.os = "Linux 12";
    facts.lang = "en-US";
  }
  EXPECT_EQ(log.count("[Verbose] Low priority event"), changes.size());
}

TEST_F(SyncEventTest, badEventDataIsRefusedWithItsLineAndLeavesNothingBehind) {
  open();
  constexpr const char* kInvalid =
      "[Error] Sync Event: Invalid event Data provided.  Ensure object is valid using "
      "\"isValidJSONObject\".";
  constexpr const char* kUnserializable =
      "[Error] Sync Event Init : EventData serialization failed.";
  const auto nested = [](size_t depth) {
    json data = json::object();
    json* level = &data;
    for (size_t i = 1; i < depth; ++i) level = &((*level)["a"] = json::object());
    return data;
  };
  struct Case {
    const char* name;
    json data;
    const char* line;
  };
  std::vector<Case> cases;
  cases.push_back({"array", json::array({1, 2}), kInvalid});
  cases.push_back({"string", "text", kInvalid});
  cases.push_back({"NaN", {{"v", std::nan("")}}, kInvalid});
  cases.push_back({"infinity", {{"v", {1, std::numeric_limits<double>::infinity()}}}, kInvalid});
  cases.push_back({"deep", nested(10000), kInvalid});
  cases.push_back({"one too deep", nested(VNTRSyncEvent::kMaxEventDataDepth + 1), kInvalid});
  cases.push_back({"bad UTF-8 value", {{"v", "ok\xC3\x28"}}, kUnserializable});
  cases.push_back({"bad UTF-8 key", {{"\xED\xA0\x80", 1}}, kUnserializable});
  cases.push_back({"overlong UTF-8", {{"v", {"\xC0\xAF"}}}, kUnserializable});
  for (auto& c : cases) {
    test::CapturingLog log;
    fire(std::move(c.data));
    EXPECT_EQ(log.lines(), std::vector<std::string>{c.line}) << c.name;
  }
  {
    test::CapturingLog log;
    fire({{"v", 1}}, {"bad\xFF"});
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"[Error] Sync Event Init :  serialization failed."});
  }
  EXPECT_TRUE(stored().empty());
  EXPECT_EQ(rowsOnDisk(file), 0);
  EXPECT_TRUE(delegate->seen().empty());

  // The deepest accepted nesting and valid multi-byte text go through.
  fire(nested(VNTRSyncEvent::kMaxEventDataDepth));
  fire({{"name", "Zo\xC3\xAB \xF0\x9F\x98\x80 \xE2\x82\xAC"}});
  EXPECT_EQ(stored().size(), 2u);
}

TEST_F(SyncEventTest, aPayloadJustUnderTheSizeLimitIsStoredIntact) {
  open();
  const std::string blob(kMaxEventRequestBytes - 4096, 'x');
  fire({{"blob", blob}});
  store.reset();
  open();
  const auto events = stored();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(json::parse(events[0]->jsonData())["params"]["eventData"]["blob"], blob);
}

TEST_F(SyncEventTest, eventCreatedIsReportedOnlyOnceTheEventIsCommitted) {
  open();
  for (int i = 0; i < 3; ++i) {
    VNTRSyncEvent::createEvent(*env, {"e"}, "g", {{"i", i}}, VNTREventPriority::high);
  }
  // An invalid build at the end of the burst still lets the others commit.
  VNTRSyncEvent::createEvent(*env, {"e"}, "g", json::array(), VNTREventPriority::high);
  queue->runUntilIdle();
  const std::vector<std::pair<int64_t, int64_t>> afterOneCommit(3,
                                                                {VNTRStatistic::eventCreated, 3});
  EXPECT_EQ(delegate->seen(), afterOneCommit);

  // Built directly, an event is saved and reported at once.
  std::shared_ptr<VNTRSyncEvent> made;
  store->performAndWait([&] {
    made = VNTRSyncEvent::make(*env, {"e"}, "g", {{"direct", true}}, VNTREventPriority::low);
  });
  ASSERT_TRUE(made);
  EXPECT_NE(made->rowId(), -1);  // -1: not in the store
  EXPECT_EQ(delegate->seen().back(), (std::pair<int64_t, int64_t>{VNTRStatistic::eventCreated, 4}));
}

TEST_F(SyncEventTest, aBurstIsBuiltInCallOrderInCommitsOfBoundedSize) {
  open();
  // More calls than one commit may hold, and payloads larger than one intake buffer.
  const size_t burst = EventDataManager::kMaxBatchedSaves + 100;
  const std::string big(40 * 1024, 'b');
  for (size_t i = 0; i < burst; ++i) {
    json data = {{"i", i}};
    if (i % 1000 == 7) data["big"] = big;
    VNTRSyncEvent::createEvent(*env, {"e" + std::to_string(i), ""}, "g", data,
                               i % 3 == 0 ? VNTREventPriority::low : VNTREventPriority::high);
  }
  // An invalid build at the end of the burst still lets the others commit.
  VNTRSyncEvent::createEvent(*env, {"e"}, "g", json::array(), VNTREventPriority::high);
  EXPECT_EQ(rowsOnDisk(file), 0);
  queue->runUntilIdle();

  // Each creation is reported after the commit that holds it.
  const auto seen = delegate->seen();
  ASSERT_EQ(seen.size(), burst);
  EXPECT_EQ(seen.front().second, static_cast<int64_t>(EventDataManager::kMaxBatchedSaves));
  EXPECT_EQ(seen[EventDataManager::kMaxBatchedSaves - 1].second,
            static_cast<int64_t>(EventDataManager::kMaxBatchedSaves));
  EXPECT_EQ(seen.back().second, static_cast<int64_t>(burst));

  const auto events = stored();  // newest first
  ASSERT_EQ(events.size(), burst);
  for (size_t i = 0; i < burst; ++i) {
    const auto& event = *events[burst - 1 - i];
    const auto params = json::parse(event.jsonData())["params"];
    ASSERT_EQ(params["events"], json({"e" + std::to_string(i), ""})) << i;
    EXPECT_EQ(params["eventData"]["i"], i);
    EXPECT_EQ(params["eventData"].contains("big"), i % 1000 == 7) << i;
    EXPECT_EQ(event.id().empty(), i % 3 == 0) << i;
  }
  EXPECT_EQ(json::parse(events[burst - 8]->jsonData())["params"]["eventData"]["big"], big);

  // Built directly, an event is saved and reported at once.
  std::shared_ptr<VNTRSyncEvent> made;
  store->performAndWait([&] {
    made = VNTRSyncEvent::make(*env, {"e"}, "g", {{"direct", true}}, VNTREventPriority::low);
  });
  ASSERT_TRUE(made);
  EXPECT_EQ(
      delegate->seen().back(),
      (std::pair<int64_t, int64_t>{VNTRStatistic::eventCreated, static_cast<int64_t>(burst) + 1}));
}

TEST_F(SyncEventTest, answersRemoveTheRecordAndWarnOnlyForTrackedIds) {
  open();
  fire({{"a", 1}}, {"tracked"}, VNTREventPriority::high);
  clock->advance(std::chrono::seconds(1));
  fire({{"b", 2}}, {"untracked"}, VNTREventPriority::low);
  clock->advance(std::chrono::seconds(1));
  fire({{"c", 3}}, {"answered"}, VNTREventPriority::high);
  auto events = stored();  // newest first: answered, untracked, tracked
  ASSERT_EQ(events.size(), 3u);

  test::CapturingLog log;
  store->performAndWait([&] {
    events[0]->processResult({{"status", "ok"}});
    events[1]->nilResult();
  });
  EXPECT_TRUE(log.lines().empty());
  store->performAndWait([&] { events[2]->nilResult(); });
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{
                "[Warning] Nil response for a non-nil ID event. Removing event anyway."});
  EXPECT_EQ(delegate->count(VNTRStatistic::eventResultProcessed), 3u);
  EXPECT_EQ(rowsOnDisk(file), 0);
}

TEST_F(SyncEventTest, withoutAStoreEventsAreDroppedWithTheSaveFailure) {
  open([](EventDataManager::StoreKind) { return false; });
  test::CapturingLog log;
  fire({{"a", 1}}, {"e"}, VNTREventPriority::low);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                "[Verbose] Low priority event",
                "[Error] Saving event queue failed with: The event store could not be opened, "
                "{code = 0, extendedCode = 0}"}));
  EXPECT_EQ(delegate->count(VNTRStatistic::eventCreated), 1u);
}

// Ids come from a per-thread buffer of kernel randomness; a forked child must not hand out the
// ids its parent has yet to use.
TEST(SyncEventIds, freshIdsAreWellFormedAndNotRepeatedByAForkedChild) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  EXPECT_TRUE(std::regex_match(makeUuidString(), uuid));  // the buffer is now part used
  constexpr int kEach = 200;
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipeFds[0]);
    std::string ids;
    for (int i = 0; i < kEach; ++i) ids += makeUuidString();
    const bool written =
        write(pipeFds[1], ids.data(), ids.size()) == static_cast<ssize_t>(ids.size());
    _exit(written ? 0 : 1);
  }
  close(pipeFds[1]);
  std::set<std::string> ids;
  for (int i = 0; i < kEach; ++i) {
    const std::string id = makeUuidString();
    EXPECT_TRUE(std::regex_match(id, uuid)) << id;
    ids.insert(id);
  }
  std::string childIds;
  char chunk[4096];
  for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof chunk)) > 0;) childIds.append(chunk, n);
  close(pipeFds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_EQ(childIds.size(), size_t{kEach} * 36);
  for (size_t at = 0; at < childIds.size(); at += 36) ids.insert(childIds.substr(at, 36));
  EXPECT_EQ(ids.size(), size_t{2 * kEach});
}

}  // namespace
}  // namespace vntr
