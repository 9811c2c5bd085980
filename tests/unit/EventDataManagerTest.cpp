#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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

TEST_F(StoreTest, changesAreVisibleAtOnceAndReachTheFileOnlyWhenSaved) {
  open();
  EXPECT_EQ(store->kind(), Kind::sqlite);
  store->performAndWait([&] {
    EXPECT_FALSE(store->hasChanges());
    store->insert("A", "{\"a\":1}", now() - 2);
    const int64_t b = store->insert("B", "{\"b\":2}", now() - 1);
    store->insert(EventDataManager::nilID, "{\"c\":3}", now());
    EXPECT_TRUE(store->hasChanges());
    EXPECT_EQ(store->count(), 3);
    EXPECT_TRUE(store->checkID("B"));
    EXPECT_EQ(rowsOnDisk(file), 0);
    store->remove(b);
    EXPECT_FALSE(store->checkID("B"));
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
    EXPECT_EQ(rowsOnDisk(file), 2);
  });

  reopen();
  EXPECT_EQ(store->kind(), Kind::sqlite);
  EXPECT_EQ(dequeuedData(0), (std::vector<std::string>{"{\"c\":3}", "{\"a\":1}"}));
  store->performAndWait([&] {
    const auto events = store->deQueue(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->id(), "");
    EXPECT_DOUBLE_EQ(events[0]->timeStamp(), now());
    // A delete is pending until saved, and visible meanwhile.
    store->remove(events[0]->rowId());
    EXPECT_EQ(store->count(), 1);
    EXPECT_EQ(rowsOnDisk(file), 2);
    store->saveContext();
  });
  EXPECT_EQ(rowsOnDisk(file), 1);
}

TEST_F(StoreTest, deQueueGivesTheNewestFirstUpToTheLimitAndLogsTheCount) {
  open();
  test::CapturingLog log;
  EXPECT_TRUE(dequeuedData(80).empty());
  fill(8);
  EXPECT_EQ(dequeuedData(5), (std::vector<std::string>{"{\"n\":7}", "{\"n\":6}", "{\"n\":5}",
                                                       "{\"n\":4}", "{\"n\":3}"}));
  EXPECT_EQ(dequeuedData(0).size(), 8u);
  EXPECT_EQ(dequeuedData(100).size(), 8u);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "[Verbose] Found 0 events to request.",
                             "[Verbose] Found 5 events to request.",
                             "[Verbose] Found 8 events to request.",
                             "[Verbose] Found 8 events to request.",
                         }));
  // Dequeuing takes nothing out of the store.
  EXPECT_EQ(onQueue([&] { return store->count(); }), 8);
}

TEST_F(StoreTest, unsavedInsertsAndDeletesMergeIntoTheQueueOrder) {
  open();
  fill(3);  // n0 at now-2, n1 at now-1, n2 at now
  store->performAndWait([&] {
    const auto saved = store->deQueue(1);  // n2
    store->remove(saved[0]->rowId());
    store->insert("p1", "{\"p\":1}", now() - 1.5);
    store->insert("p2", "{\"p\":2}", now() + 1);
    store->insert("p3", "{\"p\":3}", now() - 1);  // same time as n1, inserted later
  });
  EXPECT_EQ(dequeuedData(4),
            (std::vector<std::string>{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}", "{\"p\":1}"}));
  store->performAndWait([&] {
    EXPECT_EQ(store->count(), 5);
    store->removeOldest(2);  // n0, then p1
  });
  EXPECT_EQ(dequeuedData(0), (std::vector<std::string>{"{\"p\":2}", "{\"p\":3}", "{\"n\":1}"}));
  EXPECT_EQ(rowsOnDisk(file), 3);
}

TEST_F(StoreTest, removeOldestTakesTheOldestAndZeroTakesAll) {
  open();
  fill(6);
  store->performAndWait([&] { store->removeOldest(2); });
  EXPECT_EQ(dequeuedData(0),
            (std::vector<std::string>{"{\"n\":5}", "{\"n\":4}", "{\"n\":3}", "{\"n\":2}"}));
  store->performAndWait([&] { store->removeOldest(0); });
  EXPECT_EQ(onQueue([&] { return store->count(); }), 0);
  EXPECT_EQ(rowsOnDisk(file), 0);
}

TEST_F(StoreTest, startUpKeepsTheNewestTenThousand) {
  open();
  fill(10000);
  reopen();
  EXPECT_EQ(onQueue([&] { return store->count(); }), 10000);

  store->performAndWait([&] {
    store->insert("newest", "{}", now() + 1);
    store->saveContext();
  });
  reopen();
  EXPECT_EQ(onQueue([&] { return store->count(); }), 10000);
  EXPECT_FALSE(onQueue([&] { return store->checkID("id0"); }));  // the oldest went
  EXPECT_TRUE(onQueue([&] { return store->checkID("id1"); }));
}

TEST_F(StoreTest, startUpDropsRequestsOlderThanFourteenDaysAndKeepsTheBoundary) {
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
  EXPECT_TRUE(onQueue([&] { return store->checkID("young"); }));
  clock->advance(std::chrono::seconds(1));
  store->performAndWait([&] { store->removeOlderThan(kFourteenDays); });
  EXPECT_EQ(onQueue([&] { return store->count(); }), 1);
}

TEST_F(StoreTest, checkIdFindsSavedAndPendingIdsAndMissesQuietly) {
  open();
  fill(2);
  test::CapturingLog log;
  store->performAndWait([&] {
    EXPECT_TRUE(store->checkID("id1"));
    EXPECT_FALSE(store->checkID("unknown"));
    EXPECT_FALSE(store->checkID("ID1"));  // ids are compared exactly
    store->insert("pending", "{}", now());
    EXPECT_TRUE(store->checkID("pending"));
  });
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(StoreTest, storeFilesAreReadableByTheOwnerOnly) {
  open();
  fill(1);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat info {};
    ASSERT_EQ(::stat((file.string() + suffix).c_str(), &info), 0) << suffix;
    EXPECT_EQ(info.st_mode & 0777, 0600u) << suffix;
  }
}

TEST_F(StoreTest, aFileThatIsNotADatabaseIsReplacedByAnEmptyStore) {
  fs::create_directories(documents);
  std::ofstream(file) << std::string(8192, 'x');
  std::ofstream(file.string() + "-wal") << "stale";
  test::CapturingLog log;
  open();
  EXPECT_EQ(store->kind(), Kind::recreated);
  EXPECT_EQ(log.lines(), std::vector<std::string>{kStoreFailed});
  EXPECT_FALSE(fs::exists(file.string() + "-wal") && fs::file_size(file.string() + "-wal") == 5);
  fill(2);
  reopen();
  EXPECT_EQ(store->kind(), Kind::sqlite);
  EXPECT_EQ(onQueue([&] { return store->count(); }), 2);
}

TEST_F(StoreTest, aTruncatedDatabaseIsFoundAtOpenNotAtTheFirstBatch) {
  open();
  store->performAndWait([&] {
    for (int i = 0; i < 2000; ++i) store->insert("id", std::string(500, 'j'), now());
    store->saveContext();
  });
  store.reset();
  ASSERT_FALSE(fs::exists(file.string() + "-wal"));  // checkpointed on close
  fs::resize_file(file, fs::file_size(file) / 2);
  test::CapturingLog log;
  open();
  EXPECT_EQ(store->kind(), Kind::recreated);
  EXPECT_EQ(log.count(kStoreFailed), 1u);
  EXPECT_EQ(dequeuedData(80).size(), 0u);
}

TEST_F(StoreTest, aFileLockedByAnotherProcessIsNotDeleted) {
  open();
  fill(3);
  store.reset();
  // Another connection holds the file exclusively for the whole open (its busy timeout runs out).
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open_v2(file.c_str(), &other, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;", nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  test::CapturingLog log;
  open();
  EXPECT_EQ(store->kind(), Kind::memory);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kStoreFailed, kNewStoreFailed}));
  sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close_v2(other);
  EXPECT_EQ(rowsOnDisk(file), 3);
}

TEST_F(StoreTest, aDirectoryInPlaceOfTheFileLeavesItAloneAndUsesMemory) {
  fs::create_directories(file / "inside");
  test::CapturingLog log;
  open();
  EXPECT_EQ(store->kind(), Kind::memory);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kStoreFailed, kNewStoreFailed}));
  EXPECT_TRUE(fs::is_directory(file / "inside"));
  fill(3);
  EXPECT_EQ(dequeuedData(2).size(), 2u);
}

TEST_F(StoreTest, anUnwritableDocumentsDirectoryGivesAnInMemoryStore) {
  // Root may write anywhere, so make the directory impossible instead: its parent is a file.
  fs::create_directories(dir.path());
  std::ofstream(dir / "plain") << "not a directory";
  documents = dir / "plain" / "Documents";
  test::CapturingLog log;
  open();
  EXPECT_EQ(store->kind(), Kind::memory);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{kStoreFailed, kNewStoreFailed}));
  fill(2);
  EXPECT_EQ(onQueue([&] { return store->count(); }), 2);
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
    EXPECT_TRUE(store->hasChanges());
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
    store->saveContext();  // nothing left to report
  });
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                kStoreFailed,
                kNewStoreFailed,
                kMemoryFailed,
                // the start-up trim
                "[Error] Failed to load events for counting.",
                "[Error] Failed to load events for deleting.",
                "[Error] Failed to load saved events for sending",
                "[Verbose] Found 0 events to request.",
                "[Error] Failed to load events for counting.",
                "[Warning] Check ID search failed for X",
                "[Error] Failed to load events for deleting.",
                "[Error] Saving event queue failed with: The event store could not be opened, "
                "{code = 0, extendedCode = 0}",
            }));
}

TEST_F(StoreTest, aFailedSaveIsLoggedAndKeepsItsChangesForTheNextSave) {
  open();
  fill(1);
  // A file-size limit stands in for a full disk; the signal it raises must not kill us.
  const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
  rlimit previous{};
  ::getrlimit(RLIMIT_FSIZE, &previous);
  rlimit limited = previous;
  limited.rlim_cur = 256 * 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
  test::CapturingLog log;
  const std::string big(1024 * 1024, 'b');
  store->performAndWait([&] {
    store->insert("big", big, now());
    store->saveContext();
  });
  ::setrlimit(RLIMIT_FSIZE, &previous);
  ::signal(SIGXFSZ, previousHandler);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("[Error] Saving event queue failed with: ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(", {code = "), std::string::npos) << lines[0];
  store->performAndWait([&] {
    EXPECT_TRUE(store->hasChanges());
    EXPECT_EQ(store->count(), 2);
    EXPECT_TRUE(store->checkID("big"));
    store->saveContext();
    EXPECT_FALSE(store->hasChanges());
  });
  reopen();
  EXPECT_EQ(dequeuedData(1), std::vector<std::string>{big});
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
