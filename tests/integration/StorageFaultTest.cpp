#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Harness.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using Fault = std::function<std::shared_ptr<void>(const HostLayout&)>;

constexpr const char* kSaveFailed = "[Error] Saving event queue failed with: ";
constexpr const char* kOpenFailed =
    "[Error] Failed to initialize the event store.  Attempting to create new store.";
constexpr const char* kRecreateFailed =
    "[Error] Failed to initialize new event store.  Will attempt in memory storage.";

/// Another connection holding the store file: a write transaction, and with `exclusive` the
/// exclusive locking mode too (no other connection may even read). SQLite keeps the locks of
/// connections in one process apart as it does those of two processes.
class StoreLock {
 public:
  StoreLock(const fs::path& store, bool exclusive) {
    EXPECT_EQ(sqlite3_open_v2(store.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    if (exclusive) sqlite3_exec(db_, "PRAGMA locking_mode=EXCLUSIVE", nullptr, nullptr, nullptr);
    EXPECT_EQ(sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  ~StoreLock() {
    sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close_v2(db_);
  }

 private:
  sqlite3* db_ = nullptr;
};

// The store file cannot be written: each failed save is logged, the requests stay in memory (and
// are counted as created, as they were), batches go on, and the first save once the file can be
// written again commits everything that waited, inserts and deletes alike.
TEST(StorageFaults, failedSavesKeepTheRequestsInMemoryUntilASaveSucceeds) {
  const struct {
    const char* name;
    std::string logged;
    Fault fault;
  } rows[] = {
      // Every write to a file fails with EFBIG; the signal a file-size limit raises is ignored,
      // as a host with such a limit does.
      {"full disk", kSaveFailed,
       [](auto&) {
         rlimit previous{};
         getrlimit(RLIMIT_FSIZE, &previous);
         const auto handler = signal(SIGXFSZ, SIG_IGN);
         const rlimit full{0, previous.rlim_max};
         setrlimit(RLIMIT_FSIZE, &full);
         return std::shared_ptr<void>(nullptr, [previous, handler](void*) {
           setrlimit(RLIMIT_FSIZE, &previous);
           signal(SIGXFSZ, handler);
         });
       }},
      {"another connection's write transaction",
       std::string(kSaveFailed) + "database is locked, {code = 5, extendedCode = 5}",
       [](const HostLayout& layout) { return std::make_shared<StoreLock>(layout.store, false); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    TempDir dir;
    CapturingLog log;
    Harness app({.root = dir.path()});
    app.fire(2);
    {
      const auto fault = row.fault(app.layout);
      app.fire(1);
      EXPECT_EQ(log.count(row.logged, true), 1u);
      app.sendBatch();  // all three answered; their deletes cannot be saved either
      EXPECT_EQ((*app.delegate)[VNTRStatistic::eventResultProcessed], 3);
    }
    EXPECT_EQ(readStore(app.layout.store).rows, 2);  // the file as before the fault
    log.clear();
    app.fire(1);
    EXPECT_EQ(log.count(kSaveFailed, true), 0u);
    const StoreContents contents = readStore(app.layout.store);
    EXPECT_EQ(contents.integrity, "ok");
    EXPECT_EQ(contents.sequences, (std::set<int64_t>{3}));
  }
}

// Three launches over one data directory. The first saves three requests. The second cannot open
// the store while the fault holds (a data directory it may not write, or another connection holding
// the store exclusively): it goes to memory for that launch (both failure lines), carries on
// sending what it records, and leaves the file alone. The third finds the first's requests.
TEST(StorageFaults, aStoreThatCannotBeOpenedFallsBackToMemoryAndKeepsTheFileForLater) {
  // Root ignores file modes: run as root, the test runs again as "nobody".
  if (::geteuid() == 0 && rerunCurrentTest({}, 65534)) return;
  const std::pair<const char*, Fault> rows[] = {
      {"read-only data directory",
       [](const HostLayout& layout) {
         ::chmod(layout.documents.c_str(), 0500);
         return std::shared_ptr<void>(
             nullptr, [dir = layout.documents](void*) { ::chmod(dir.c_str(), 0700); });
       }},
      {"store held exclusively",
       [](const HostLayout& layout) { return std::make_shared<StoreLock>(layout.store, true); }},
  };
  for (const auto& [name, fault] : rows) {
    SCOPED_TRACE(name);
    TempDir dir;
    CapturingLog log;
    const HostLayout layout(dir.path());
    Harness({.root = dir.path()}).fire(3);
    {
      const auto held = fault(layout);
      Harness app({.root = dir.path()});
      app.nextSeq = 100;
      app.fire(1);
      EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::memory);
      app.sendBatch();
      EXPECT_EQ(app.transport->batches(), 1u);
      EXPECT_EQ(app.storedCount(), 0);
    }
    EXPECT_EQ(log.count(kOpenFailed), 1u);
    EXPECT_EQ(log.count(kRecreateFailed), 1u);
    Harness app({.root = dir.path()});
    EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::sqlite);
    const StoreContents contents = readStore(layout.store);
    EXPECT_EQ(contents.integrity, "ok");
    EXPECT_EQ(contents.sequences, (std::set<int64_t>{0, 1, 2}));
  }
}

}  // namespace
}  // namespace vntr::test
