#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <limits>
#include <regex>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "model/PendingBuilds.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/TestSupport.hpp"

namespace {

std::atomic<int> walSyncs{0};

bool isWriteAheadLog(int fd) {
  char link[64];
  char target[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = ::readlink(link, target, sizeof target);
  return n > 4 && std::string_view(target, static_cast<size_t>(n)).ends_with("-wal");
}

}  // namespace

// A stored request must survive a power cut, not only a killed process. SQLite syncs its files
// with fdatasync; this executable's definition takes its place and counts the syncs of
// write-ahead logs before making the real system call.
extern "C" int fdatasync(int fd) {
  if (isWriteAheadLog(fd)) walSyncs.fetch_add(1);
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

namespace vntr {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::rowsOnDisk;
using Seen = std::vector<std::pair<int64_t, int64_t>>;

const std::regex kUuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");

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
  Seen seen() {
    std::scoped_lock lock(mutex_);
    return seen_;
  }

 private:
  fs::path file_;
  std::mutex mutex_;
  Seen seen_;
};

class SyncEventTest : public ::testing::Test {
 protected:
  void SetUp() override { VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate); }
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
  EventFacts facts{"12345", "com.example.app", "Linux 12",       "en-US", "IDFA", "IDFV",
                   true,    "x86_64",          "20190301120000", "0.1.0"};
  std::optional<EventDataManager> store;
  std::optional<SyncEventEnvironment> env;
};

// Requests are rendered from a cut of the template made once per set of device facts; facts
// that change, that need escaping, or that hold the cut's own marker text must still give
// exactly the request a whole serialisation of the template would.
TEST_F(SyncEventTest, requestIsTheTemplateFilledWithTheCallAndTheFactsOfTheMoment) {
  open();
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
  std::set<std::string> ids;
  for (const auto priority : {VNTREventPriority::high, VNTREventPriority::low}) {
    for (const auto& [what, change] : changes) {
      SCOPED_TRACE(what);
      change();
      test::CapturingLog log;
      VNTRSyncEvent::createEvent(*env, {"a\"b", "\xC3\xA9\n"}, "g\\", {{"price", 9.99}}, priority);
      EXPECT_EQ(rowsOnDisk(file), 0);  // createEvent only queues the work
      queue->runUntilIdle();
      const auto events = stored();
      ASSERT_EQ(events.size(), 1u);
      const VNTRSyncEvent& event = *events[0];
      const bool low = priority == VNTREventPriority::low;
      EXPECT_TRUE(low ? event.id().empty() : std::regex_match(event.id(), kUuid)) << event.id();
      if (!low) ids.insert(event.id());
      EXPECT_DOUBLE_EQ(event.timeStamp(), referenceDateSeconds(clock->now()));
      json expected = json::parse(R"({"jsonrpc": "2.0", "method": "syncEvent", "params": {
          "eventData": {"price": 9.99}, "eventGroup": "g\\", "events": ["a\"b", "\u00e9\n"],
          "version": "1.0", "eventTime": "20231114221320", "deviceData": {"id": "IDFA",
          "idfv": "IDFV", "dnt": true, "connectionType": "wifi", "platform": "linux"},
          "appInfo": {"appInstallTime": "20190301120000", "sdkVersion": "0.1.0"}}})");
      expected["id"] = low ? "0" : event.id();
      json& params = expected["params"];
      params["siteId"] = *facts.siteId;
      if (facts.appId) params["appId"] = *facts.appId;
      for (const auto& [member, value] :
           {std::pair{"os", facts.os}, {"lang", facts.lang}, {"hardware", facts.hardware}}) {
        params["deviceData"][member] = value;
      }
      EXPECT_EQ(event.jsonData(), expected.dump());  // compact, exactly these members
      EXPECT_EQ(log.lines().front(),
                low ? "[Verbose] Low priority event" : "[Verbose] Event id " + event.id());
      store->performAndWait([&] {
        store->removeOldest(0);
        store->saveContext();
      });
    }
    facts.os = "Linux 12";
    facts.lang = "en-US";
  }
  EXPECT_EQ(ids.size(), changes.size());
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
    std::vector<std::string> events = {"checkout"};
  };
  std::vector<Case> cases;
  cases.push_back({"array", json::array({1, 2}), kInvalid});
  cases.push_back({"string", "text", kInvalid});
  cases.push_back({"NaN", {{"v", std::nan("")}}, kInvalid});
  cases.push_back({"infinity", {{"v", {1, std::numeric_limits<double>::infinity()}}}, kInvalid});
  cases.push_back({"one too deep", nested(VNTRSyncEvent::kMaxEventDataDepth + 1), kInvalid});
  cases.push_back({"bad UTF-8 value", {{"v", "ok\xC3\x28"}}, kUnserializable});
  cases.push_back({"bad UTF-8 key", {{"\xED\xA0\x80", 1}}, kUnserializable});
  cases.push_back({"overlong UTF-8", {{"v", {"\xC0\xAF"}}}, kUnserializable});
  cases.push_back(
      {"bad event name", {{"v", 1}}, "[Error] Sync Event Init :  serialization failed.", {"\xFF"}});
  for (auto& c : cases) {
    test::CapturingLog log;
    fire(std::move(c.data), c.events);
    EXPECT_EQ(log.lines(), std::vector<std::string>{c.line}) << c.name;
  }
  EXPECT_EQ(rowsOnDisk(file), 0);
  EXPECT_TRUE(delegate->seen().empty());

  // The deepest accepted nesting and valid multi-byte text go through.
  fire(nested(VNTRSyncEvent::kMaxEventDataDepth));
  fire({{"name", "Zo\xC3\xAB \xF0\x9F\x98\x80 \xE2\x82\xAC"}});
  EXPECT_EQ(stored().size(), 2u);
}

TEST_F(SyncEventTest, aBurstIsBuiltInCallOrderAndReportedOnlyOnceCommittedInBoundedCommits) {
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
  const int syncsBefore = walSyncs.load();
  queue->runUntilIdle();
  // Each commit reaches stable storage before its requests are reported, and the burst shares
  // its syncs instead of paying one per event.
  const int syncs = walSyncs.load() - syncsBefore;
  EXPECT_GE(syncs, 2) << "eventCreated was reported for commits that were never synced";
  EXPECT_LE(syncs, 4) << "a burst of " << burst << " calls synced per event";

  // Each creation is reported after the commit that holds it.
  const auto seen = delegate->seen();
  ASSERT_EQ(seen.size(), burst);
  const auto cap = static_cast<int64_t>(EventDataManager::kMaxBatchedSaves);
  EXPECT_EQ(seen.front(), (Seen::value_type{VNTRStatistic::eventCreated, cap}));
  const auto events = stored();  // newest first
  ASSERT_EQ(events.size(), burst);
  for (size_t i = 0; i < burst; ++i) {
    const auto params = json::parse(events[burst - 1 - i]->jsonData())["params"];
    ASSERT_EQ(params["events"], json({"e" + std::to_string(i), ""})) << i;
    EXPECT_EQ(params["eventData"]["i"], i);
    EXPECT_EQ(params["eventData"].contains("big"), i % 1000 == 7) << i;
  }
  EXPECT_EQ(json::parse(events[burst - 8]->jsonData())["params"]["eventData"]["big"], big);

  // Built directly, an event is saved and reported at once.
  std::shared_ptr<VNTRSyncEvent> made;
  store->performAndWait([&] {
    made = VNTRSyncEvent::make(*env, {"e"}, "g", {{"direct", true}}, VNTREventPriority::low);
  });
  ASSERT_TRUE(made);
  EXPECT_NE(made->rowId(), -1);  // -1: not in the store
  EXPECT_EQ(delegate->seen().back(), (Seen::value_type{VNTRStatistic::eventCreated, burst + 1}));
}

// The answers to a batch are held back in their joined task and saved by the next save on the
// queue, one commit for all, which runs its follow-up (the batch lock's release) only once it is
// on disk. Answers only delete, so that commit does not wait for the disk, while the next new
// request's commit syncs again. A throwing task's deletes stay pending for the next save too.
TEST_F(SyncEventTest, answersAreHeldForOneLaterCommitThatSkipsTheSync) {
  open();
  for (int i = 0; i < 5; ++i) fire({{"i", i}});
  const auto events = stored();
  ASSERT_EQ(events.size(), 5u);
  const int before = walSyncs.load();
  store->performAndWaitJoiningSaves([&] {
    for (size_t i = 0; i < 3; ++i) events[i]->processResult(nullptr);
    EXPECT_EQ(store->count(), 2);  // the queue itself sees the deletes at once
  });
  EXPECT_THROW(store->performAndWaitJoiningSaves([&] {
    events[3]->processResult(nullptr);
    throw std::runtime_error("dispatch failed");
  }),
               std::runtime_error);
  EXPECT_EQ(rowsOnDisk(file), 5);
  int64_t seenAfterSave = -1;
  store->saveContextLater([&] { seenAfterSave = rowsOnDisk(file); });
  queue->runUntilIdle();
  EXPECT_EQ(seenAfterSave, 1);
  fire({{"new", true}});
  EXPECT_EQ(walSyncs.load(), before + 1);
}

// Calls waiting for the store are packed compactly (repeated names and group left out, short
// lengths) and, past a few chunks, spilled to a file; whatever the mix and wherever they wait,
// draining gives back every call as it was, in order.
using Build = std::tuple<VNTREventPriority, std::vector<std::string>, std::string, std::string>;

std::vector<Build> mixedCalls(int count, int from) {
  const std::string longText(300, 'x');  // lengths past one byte
  std::vector<Build> calls;
  for (int i = from; i < from + count; ++i) {
    const auto priority = i % 7 == 0 ? VNTREventPriority::low : VNTREventPriority::high;
    std::vector<std::string> names = {"checkout"};
    if (i % 5 == 0) names = {"a", "b", ""};
    if (i % 11 == 0) names = {};
    const std::string group = i % 13 == 0 ? longText : "purchase";
    const std::string data = i % 3 == 0 ? "" : "{\"i\":" + std::to_string(i) + "}";
    calls.emplace_back(priority, names, group, i % 17 == 0 ? longText : data);
  }
  return calls;
}

std::vector<Build> drained(PendingBuilds& pending) {
  std::vector<Build> out;
  pending.drain([&](VNTREventPriority priority, const std::vector<std::string>& names,
                    const std::string& group, std::string_view data) {
    out.emplace_back(priority, names, group, std::string(data));
  });
  return out;
}

TEST(PendingBuilds, drainsEveryCallInOrderFromMemoryAndSpillFile) {
  test::TempDir dir;
  struct Case {
    const char* name;
    std::filesystem::path spillDirectory;
    bool spills;
  } const cases[] = {
      {"memory only", {}, false},
      {"spill file", dir.path(), true},
      {"no usable directory: memory", dir / "missing", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PendingBuilds pending(c.spillDirectory);
    for (int round = 0; round < 2; ++round) {  // the second reuses the file from its start
      const auto calls = mixedCalls(4000, round * 4000);  // many 32 KiB chunks
      bool first = true;
      for (const auto& [priority, names, group, data] : calls) {
        EXPECT_EQ(pending.append(priority, names, group, data), first);  // one drain asked for
        first = false;
      }
      EXPECT_EQ(pending.spilledBytes() > 0, c.spills);
      EXPECT_EQ(drained(pending), calls);
      EXPECT_EQ(pending.spilledBytes(), 0u);
      EXPECT_TRUE(drained(pending).empty());
    }
    EXPECT_TRUE(pending.append(VNTREventPriority::high, {"next"}, "g", "{}"));  // drain again
  }
}

}  // namespace
}  // namespace vntr
