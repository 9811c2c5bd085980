#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;
using test::rowsOnDisk;
using Kind = EventDataManager::StoreKind;

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
  template <class F>
  auto onQueue(F f) {
    decltype(f()) result{};
    store->performAndWait([&] { result = f(); });
    return result;
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
  std::vector<std::string> dequeuedData(int64_t count) {
    std::vector<std::string> data;
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
  test::CapturingLog log;
  fill(3);  // n0 at now-2, n1 at now-1, n2 at now
  store->performAndWait([&] {
    store->remove(store->deQueue(1)[0]->rowId());  // n2
    store->insert("p1", "{\"p\":1}", now() - 1.5);
    store->insert("p2", "{\"p\":2}", now() + 1);
    store->insert(EventDataManager::nilID, "{\"p\":3}", now() - 1);  // n1's time, inserted later
    EXPECT_TRUE(store->hasChanges());
    EXPECT_TRUE(store->checkID("p1") && store->checkID("id1"));
    EXPECT_FALSE(store->checkID("id2") || store->checkID("ID1") || store->checkID("unknown"));
    EXPECT_EQ(rowsOnDisk(file), 3);
  });
  EXPECT_EQ(dequeuedData(4),
            (std::vector<std::string>{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}", "{\"p\":1}"}));
  store->performAndWait([&] {
    EXPECT_EQ(store->count(), 5);
    store->removeOldest(2);  // n0, then p1
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
  });
  EXPECT_EQ(rowsOnDisk(file), 3);
  reopen();
  EXPECT_EQ(dequeuedData(0), (std::vector<std::string>{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}"}));
  EXPECT_EQ(dequeuedData(1).size(), 1u);
  EXPECT_EQ(log.count("[Verbose] Found 4 events to request."), 1u);
  EXPECT_EQ(log.count("[Warning] Check ID search failed for unknown"), 0u);  // a miss is quiet
  store->performAndWait([&] { store->removeOldest(0); });                    // zero takes all
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
  EXPECT_FALSE(onQueue([&] { return store->checkID("older"); }));
  EXPECT_TRUE(onQueue([&] { return store->checkID("boundary"); }));
  clock->advance(std::chrono::seconds(1));
  store->performAndWait([&] { store->removeOlderThan(kFourteenDays); });
  EXPECT_EQ(onQueue([&] { return store->count(); }), 1);
  fill(10000);
  reopen();
  EXPECT_EQ(onQueue([&] { return store->count(); }), 10000);
  EXPECT_FALSE(onQueue([&] { return store->checkID("id0"); }));  // the oldest went
  EXPECT_TRUE(onQueue([&] { return store->checkID("id1") && store->checkID("young"); }));
}

// A file that is not a database, a truncated database, a file another process holds exclusively,
// a directory in its place, a documents directory that cannot exist: the store starts anew, or
// in memory, says so, and never deletes what it cannot open.
TEST_F(StoreTest, anUnusableFileGivesANewOrInMemoryStoreAndIsLeftAloneWhenLocked) {
  sqlite3* other = nullptr;
  const struct Case {
    const char* name;
    std::function<void()> setUp;
    Kind kind;
  } cases[] = {
      {"not a database",
       [&] {
         fs::create_directories(documents);
         std::ofstream(file) << std::string(8192, 'x');
       },
       Kind::recreated},
      {"truncated",
       [&] {
         open();
         store->performAndWait([&] {
           for (int i = 0; i < 2000; ++i) store->insert("id", std::string(500, 'j'), now());
           store->saveContext();
         });
         store.reset();
         fs::resize_file(file, fs::file_size(file) / 2);
       },
       Kind::recreated},
      {"locked",
       [&] {
         open();
         fill(3);
         store.reset();
         sqlite3_open_v2(file.c_str(), &other, SQLITE_OPEN_READWRITE, nullptr);
         sqlite3_exec(other, "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;", nullptr, nullptr,
                      nullptr);
       },
       Kind::memory},
      {"directory", [&] { fs::create_directories(file / "inside"); }, Kind::memory},
      {"impossible",
       [&] {
         std::ofstream(dir / "plain") << "not a directory";
         documents = dir / "plain" / "Documents";  // root may write anywhere, but not there
       },
       Kind::memory},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir / "Documents");
    c.setUp();
    test::CapturingLog log;
    open();
    EXPECT_EQ(store->kind(), c.kind);
    EXPECT_EQ(log.count(kStoreFailed), 1u);
    EXPECT_EQ(log.count(kNewStoreFailed), c.kind == Kind::memory ? 1u : 0u);
    EXPECT_EQ(dequeuedData(80).size(), 0u);
    if (other != nullptr) {  // the locked file was left alone
      sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
      sqlite3_close_v2(other);
      other = nullptr;
      EXPECT_EQ(rowsOnDisk(file), 3);
    }
    EXPECT_EQ(fs::exists(file / "inside"), fs::is_directory(file / "inside"));
    fill(2);
    EXPECT_EQ(onQueue([&] { return store->count(); }), 2);
    store.reset();
  }
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
      (std::vector<std::string>{
          kStoreFailed, kNewStoreFailed, kMemoryFailed,
          "[Error] Failed to load events for counting.",  // the start-up trim
          "[Error] Failed to load events for deleting.",
          "[Error] Failed to load saved events for sending", "[Verbose] Found 0 events to request.",
          "[Error] Failed to load events for counting.", "[Warning] Check ID search failed for X",
          "[Error] Failed to load events for deleting.",
          "[Error] Saving event queue failed with: The event store could not be opened, "
          "{code = 0, extendedCode = 0}"}));
}

TEST_F(StoreTest, batchedWorkSharesOneCommitAndRunsItsCallbacksAfterIt) {
  open();
  constexpr size_t kCap = EventDataManager::kMaxBatchedSaves;
  constexpr int kTasks = static_cast<int>(kCap) + 88;  // more than one commit may hold
  std::map<int, int64_t> onDiskAtCallback;
  int callbacks = 0;
  for (int i = 0; i < kTasks; ++i) {
    store->performBatched([&, i] {
      store->insert("id" + std::to_string(i), "{}", now());
      store->saveContextThen([&, i] {
        ++callbacks;
        if (i == 0 || i == kCap - 1 || i == kCap || i == kTasks - 1) {
          onDiskAtCallback[i] = rowsOnDisk(file);
        }
      });
    });
  }
  EXPECT_EQ(rowsOnDisk(file), 0);  // nothing runs until the queue does
  queue->runUntilIdle();
  EXPECT_EQ(callbacks, kTasks);
  EXPECT_EQ(
      onDiskAtCallback,
      (std::map<int, int64_t>{{0, kCap}, {kCap - 1, kCap}, {kCap, kTasks}, {kTasks - 1, kTasks}}));

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

}  // namespace
}  // namespace vntr
