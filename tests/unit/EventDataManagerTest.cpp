#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "store/UnitOfWork.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;
using test::rowsOnDisk;
using Kind = EventDataManager::StoreKind;
using Texts = std::vector<std::string>;

constexpr const char* kStoreFailed =
    "[Error] Failed to initialize the event store.  Attempting to create new store.";
constexpr const char* kNewStoreFailed =
    "[Error] Failed to initialize new event store.  Will attempt in memory storage.";
constexpr const char* kMemoryFailed =
    "[Fatal] Failed to initialize new in memory store.  We are out of options.";

// True when another connection can take the write lock right now.
bool writableByOthers(const fs::path& file) {
  sqlite3* db = nullptr;
  bool writable = false;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    writable = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  sqlite3_close_v2(db);
  return writable;
}

/// A store in a fresh directory, on a manual queue stepped by the test.
class StoreTest : public ::testing::Test {
 protected:
  void open(EventDataManager::AttemptFilter filter = {}) {
    store = std::make_unique<EventDataManager>(documents, queue, clock, std::move(filter));
    queue->runUntilIdle();  // the start-up trim
  }
  void reopen() {
    store.reset();
    open();
  }
  int64_t count() {
    int64_t n = 0;
    store->performAndWait([&] { n = store->count(); });
    return n;
  }
  bool has(const std::string& id) {
    bool found = false;
    store->performAndWait([&] { found = store->checkID(id); });
    return found;
  }
  double now() const { return referenceDateSeconds(clock->now()); }
  // Stores `n` requests "id0".."id<n-1>" created one second apart, the newest now.
  void fill(int64_t n) {
    store->performAndWait([&] {
      for (int64_t i = 0; i < n; ++i) {
        store->insert("id" + std::to_string(i), "{\"n\":" + std::to_string(i) + "}",
                      now() - static_cast<double>(n - 1 - i));
      }
      store->saveContext();
    });
  }
  Texts dequeuedData(int64_t count) {
    Texts data;
    store->performAndWait([&] {
      for (const auto& event : store->deQueue(count)) data.push_back(event->jsonData());
    });
    return data;
  }

  test::TempDir dir;
  fs::path documents = dir / "Documents";
  fs::path file = documents / "requests_Data.sqlite";
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<ManualExecutor> queue = std::make_shared<ManualExecutor>(clock);
  std::unique_ptr<EventDataManager> store;
};

// Changes are visible at once and reach the file only when saved; the queue gives the newest
// first, saved and unsaved rows merged, up to the limit; ids are found exactly, pending or saved.
TEST_F(StoreTest, theQueueIsNewestFirstAndChangesReachTheFileWhenSaved) {
  open();
  EXPECT_EQ(store->kind(), Kind::sqlite);
  fill(3);  // n0 at now-2, n1 at now-1, n2 at now
  store->performAndWait([&] {
    store->remove(store->deQueue(1)[0]->rowId());  // n2
    store->insert("p1", "{\"p\":1}", now() - 1.5);
    store->insert("p2", "{\"p\":2}", now() + 1);
    store->insert(EventDataManager::nilID, "{\"p\":3}", now() - 1);  // n1's time, inserted later
    EXPECT_TRUE(store->hasChanges() && store->checkID("p1") && store->checkID("id1"));
    EXPECT_FALSE(store->checkID("id2") || store->checkID("ID1") || store->checkID("unknown"));
    EXPECT_EQ(rowsOnDisk(file), 3);
  });
  EXPECT_EQ(dequeuedData(4), (Texts{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}", "{\"p\":1}"}));
  store->performAndWait([&] {
    EXPECT_EQ(store->count(), 5);
    store->removeOldest(2);  // n0, then p1
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
  });
  reopen();
  EXPECT_EQ(dequeuedData(0), (Texts{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}"}));
  store->performAndWait([&] { store->removeOldest(0); });  // zero takes all
  EXPECT_EQ(rowsOnDisk(file), 0);
}

// At start-up the store drops requests older than fourteen days (the boundary itself stays),
// then keeps the newest ten thousand; the age limit also applies while it runs.
TEST_F(StoreTest, startUpTrimsByAgeThenByCount) {
  constexpr double kFourteenDays = 14 * 24 * 3600;
  open();
  store->performAndWait([&] {
    store->insert("older", "{}", now() - kFourteenDays - 0.001);
    store->insert("boundary", "{}", now() - kFourteenDays);
    store->insert("young", "{}", now() - 60);
    store->saveContext();
  });
  reopen();
  EXPECT_TRUE(!has("older") && has("boundary"));
  clock->advance(std::chrono::seconds(1));
  store->performAndWait([&] { store->removeOlderThan(kFourteenDays); });
  EXPECT_EQ(count(), 1);
  fill(10000);
  reopen();
  EXPECT_EQ(count(), 10000);
  EXPECT_TRUE(!has("id0") && has("id1") && has("young"));  // the oldest went
}

// A file that is not a database, a directory in its place: the store starts anew, or in memory,
// and says so. (A directory it may not write to, and a file another process holds, are left
// alone: StorageFaults.)
TEST_F(StoreTest, anUnusableFileGivesANewOrInMemoryStore) {
  const std::tuple<const char*, std::function<void()>, Kind> cases[] = {
      {"not a database",
       [&] {
         fs::create_directories(documents);
         std::ofstream(file) << std::string(8192, 'x');
       },
       Kind::recreated},
      {"directory", [&] { fs::create_directories(file / "inside"); }, Kind::memory},
  };
  for (const auto& [name, setUp, kind] : cases) {
    SCOPED_TRACE(name);
    setUp();
    test::CapturingLog log;
    open();
    EXPECT_EQ(store->kind(), kind);
    EXPECT_EQ(log.count(kStoreFailed), 1u);
    EXPECT_EQ(log.count(kNewStoreFailed), kind == Kind::memory ? 1u : 0u);
    EXPECT_EQ(fs::exists(file / "inside"), fs::is_directory(file / "inside"));
    fill(2);
    EXPECT_EQ(dequeuedData(80).size(), 2u);
    store.reset();
    fs::remove_all(dir / "Documents");
  }
}

// A store written by an earlier version (whole-id index, no key column) is kept: its rows get
// their keys at the open, and so do rows such a version adds before the next open.
TEST_F(StoreTest, aStoreOfAnEarlierVersionKeepsItsRequestsAndFindsTheirIds) {
  // Runs `sql` on a connection of its own; the first column of its last row, 0 without rows.
  const auto run = [&](const std::string& sql) {
    sqlite3* db = nullptr;
    int64_t last = 0;
    EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    const auto keep = [](void* out, int, char** values, char**) {
      *static_cast<int64_t*>(out) = values[0] != nullptr ? std::atoll(values[0]) : 0;
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), keep, &last, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return last;
  };
  const std::string insertOld = "INSERT INTO SyncEvent (id, jsonData, timeStamp) VALUES ";
  const std::string at = std::to_string(now());
  fs::create_directories(documents);
  run("CREATE TABLE SyncEvent (pk INTEGER PRIMARY KEY, id TEXT, jsonData BLOB, "
      "timeStamp REAL NOT NULL DEFAULT 0); CREATE INDEX SyncEvent_id ON SyncEvent (id);" +
      insertOld + "('old1', '{}', " + at + "), ('old2', '{}', " + at + ")");
  open();
  EXPECT_EQ(store->kind(), Kind::sqlite);
  EXPECT_TRUE(has("old1") && has("old2"));
  EXPECT_FALSE(has("old3") || has("old"));
  store.reset();
  EXPECT_EQ(run("SELECT COUNT(*) FROM sqlite_schema WHERE name = 'SyncEvent_id'"), 0);
  run(insertOld + "('old3', '{}', " + at + ")");  // an earlier version sharing the file
  open();
  EXPECT_TRUE(has("old3"));
  EXPECT_EQ(count(), 3);
}

TEST_F(StoreTest, withNoStoreAtAllEveryOperationLogsItsFailure) {
  test::CapturingLog log;
  open([](Kind) { return false; });
  EXPECT_EQ(store->kind(), Kind::none);
  store->performAndWait([&] {
    EXPECT_TRUE(store->deQueue(80).empty());
    EXPECT_EQ(store->count(), 0);
    EXPECT_FALSE(store->checkID("X"));
    store->removeOldest(1);
    EXPECT_EQ(store->insert("X", "{}", now()), -1);
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
    store->saveContext();  // nothing left to report
  });
  EXPECT_EQ(
      log.lines(),
      (Texts{kStoreFailed, kNewStoreFailed, kMemoryFailed,
             "[Error] Failed to load events for counting.",  // the start-up trim
             "[Error] Failed to load events for deleting.",
             "[Error] Failed to load saved events for sending",
             "[Verbose] Found 0 events to request.", "[Error] Failed to load events for counting.",
             "[Warning] Check ID search failed for X",
             "[Error] Failed to load events for deleting.",
             "[Error] Saving event queue failed with: The event store could not be opened, "
             "{code = 0, extendedCode = 0}"}));
}

TEST_F(StoreTest, batchedWorkSharesOneCommitAndRunsItsCallbacksAfterIt) {
  open();
  constexpr int kCap = EventDataManager::kMaxBatchedSaves;
  constexpr int kTasks = kCap + 88;  // more than one commit may hold
  std::vector<int64_t> onDiskAtCallback;
  for (int i = 0; i < kTasks; ++i) {
    store->performBatched([&, i] {
      store->insert("id" + std::to_string(i), "{}", now());
      store->saveContextThen([&] { onDiskAtCallback.push_back(rowsOnDisk(file)); });
    });
  }
  EXPECT_EQ(rowsOnDisk(file), 0);  // nothing runs until the queue does
  queue->runUntilIdle();
  ASSERT_EQ(onDiskAtCallback.size(), size_t{kTasks});
  EXPECT_EQ(onDiskAtCallback.front(), kCap);
  EXPECT_EQ(onDiskAtCallback[kCap - 1], kCap);
  EXPECT_EQ(onDiskAtCallback[kCap], kTasks);

  // A burst whose last task saves nothing still commits what the others left pending, and
  // no burst keeps the file locked once it is over.
  store->performBatched([&] { store->insert("x", "{}", now()); });
  store->performBatched([&] { EXPECT_FALSE(writableByOthers(file)); });
  store->performBatched([] {});
  queue->runUntilIdle();
  EXPECT_EQ(rowsOnDisk(file), kTasks + 1);
  EXPECT_TRUE(writableByOthers(file));
  store->performBatched([] {});
  store->performBatched([] {});
  queue->runUntilIdle();
  EXPECT_TRUE(writableByOthers(file));
}

// A store that cannot save keeps what it may in memory, within bounds.
TEST(ProcessSafety, unsavedInsertsAreBoundedAndTheDroppedOnesCounted) {
  store::UnitOfWork changes;
  const int64_t extra = 7;
  const auto total = static_cast<int64_t>(store::UnitOfWork::kMaxPendingInserts) + extra;
  for (int64_t n = 0; n < total; ++n) {
    changes.insert(
        store::Row{store::kFirstProvisionalKey + n, "id" + std::to_string(n), "{}", 0, nullptr});
  }
  EXPECT_EQ(changes.inserted().size(), store::UnitOfWork::kMaxPendingInserts);
  EXPECT_EQ(changes.inserted().front().id, "id" + std::to_string(extra));  // the oldest went
  EXPECT_EQ(changes.takeOverflowed(), static_cast<size_t>(extra));
  EXPECT_EQ(changes.takeOverflowed(), 0u);
}

}  // namespace
}  // namespace vntr
