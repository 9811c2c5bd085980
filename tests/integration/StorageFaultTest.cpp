#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "support/Harness.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kSaveFailed = "[Error] Saving event queue failed with: ";
constexpr const char* kOpenFailed =
    "[Error] Failed to initialize the event store.  Attempting to create new store.";
constexpr const char* kRecreateFailed =
    "[Error] Failed to initialize new event store.  Will attempt in memory storage.";

/// A disk that is full for this process while this lives: every write to a file past `bytes`
/// fails with EFBIG (the signal a file-size limit raises is ignored, as a host with such a
/// limit does).
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &previous_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &previousAction_);
    const rlimit limited{bytes, previous_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    sigaction(SIGXFSZ, &previousAction_, nullptr);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit previous_{};
  struct sigaction previousAction_ {};
};

// Writes fail as on a full disk: each failed save is logged, the requests stay in memory (and are
// counted as created, as they were), batches go on, and the first save after the disk has room
// again commits everything that waited, inserts and deletes alike.
TEST(StorageFaults, aFullDiskIsLoggedAndWhatWaitedIsSavedOnceThereIsRoom) {
  TempDir dir;
  CapturingLog log;
  Harness app({.root = dir.path()});
  const auto& counts = *app.delegate;
  app.fire(3);
  ASSERT_EQ(readStore(app.layout.store).rows, 3);
  log.clear();
  {
    FileSizeLimit full(0);
    app.fire(2);
    EXPECT_GE(log.count(kSaveFailed, true), 2u);
    EXPECT_EQ(counts[VNTRStatistic::eventCreated], 5);
    EXPECT_EQ(app.storedCount(), 5);  // kept, in memory
    app.sendBatch();                  // all five answered; their deletes cannot be saved either
    EXPECT_EQ(counts[VNTRStatistic::eventResultProcessed], 5);
    EXPECT_EQ(app.storedCount(), 0);
    app.fire(1);
    EXPECT_EQ(app.storedCount(), 1);
  }
  EXPECT_EQ(readStore(app.layout.store).rows, 3);  // the file as before the disk filled up
  log.clear();
  app.fire(1);
  EXPECT_EQ(log.count(kSaveFailed, true), 0u);
  const StoreContents contents = readStore(app.layout.store);
  EXPECT_EQ(contents.integrity, "ok");
  EXPECT_EQ(contents.sequences, (std::set<int64_t>{5, 6}));
  EXPECT_EQ(app.storedCount(), 2);
}

// A data directory the app may not write to: the store falls back to memory for this launch
// (both failure lines) and the host carries on, sending what it records; a store file already
// there is left as it is, and the next launch with a writable directory finds its requests.
TEST(StorageFaults, aReadOnlyDataDirectoryFallsBackToMemoryAndKeepsTheFileForLater) {
  // Root ignores file modes: run as root, the test runs again as "nobody".
  if (::geteuid() == 0 && rerunCurrentTestAs(65534)) return;
  TempDir dir;
  CapturingLog log;
  const HostLayout layout(dir.path());
  fs::create_directories(layout.documents);
  const auto readOnly = [&] { ::chmod(layout.documents.c_str(), 0500); };
  const auto writable = [&] { ::chmod(layout.documents.c_str(), 0700); };

  readOnly();
  {
    Harness app({.root = dir.path()});
    app.fire(2);
    EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::memory);
    EXPECT_EQ(app.storedCount(), 2);
    app.sendBatch();
    EXPECT_EQ(app.transport->batches(), 1u);
    EXPECT_EQ(app.storedCount(), 0);
  }
  EXPECT_EQ(log.count(kOpenFailed), 1u);
  EXPECT_EQ(log.count(kRecreateFailed), 1u);
  EXPECT_FALSE(fs::exists(layout.store));

  writable();
  {
    Harness app({.root = dir.path()});
    app.fire(3);
    EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::sqlite);
  }
  log.clear();
  readOnly();
  {
    Harness app({.root = dir.path()});
    app.nextSeq = 100;
    app.fire(1);
    EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::memory);
    EXPECT_EQ(app.storedCount(), 1);
  }
  EXPECT_EQ(log.count(kOpenFailed), 1u);
  EXPECT_EQ(log.count(kRecreateFailed), 1u);

  writable();
  Harness app({.root = dir.path()});
  EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::sqlite);
  EXPECT_EQ(app.storedCount(), 3);
  EXPECT_EQ(readStore(layout.store).sequences, (std::set<int64_t>{0, 1, 2}));
}

/// Another process holding the store file, through the fault child's "lock" mode.
class LockingProcess {
 public:
  LockingProcess(const fs::path& store, const std::string& how, const fs::path& dir)
      : output_(dir / ("lock-" + how)) {
    auto options = command({faultChildProgram(), "lock", store.string(), how}, output_);
    options.stdoutFile = output_.string() + ".out";
    options.pipeStdin = true;
    child_ = std::make_unique<ChildProcess>(options);
    locked_ = waitUntil([&] { return readFile(output_.string() + ".out") == "locked\n"; }, 30s);
  }
  bool locked() const { return locked_; }
  std::string errors() const { return readFile(output_); }
  /// Lets go of the lock; true when the process ended cleanly.
  bool release() {
    child_->closeStdin();
    const auto status = child_->wait(30s);
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
  }

 private:
  fs::path output_;
  std::unique_ptr<ChildProcess> child_;
  bool locked_ = false;
};

// Another process holds the store file. While it holds a write transaction, saves fail after the
// busy timeout (logged) and the requests wait in memory until the next save after it lets go.
// While it holds the file in exclusive locking mode at start-up, the store goes to memory for
// that launch and leaves the file alone; the next launch finds every request in it.
TEST(StorageFaults, aStoreLockedByAnotherProcessLosesNothing) {
  TempDir dir;
  CapturingLog log;
  const HostLayout layout(dir.path());
  {
    Harness app({.root = dir.path()});
    app.fire(2);
    log.clear();
    LockingProcess other(layout.store, "write", dir.path());
    ASSERT_TRUE(other.locked()) << other.errors();
    app.fire(1);
    EXPECT_EQ(
        log.count(std::string(kSaveFailed) + "database is locked, {code = 5, extendedCode = 5}"),
        1u);
    EXPECT_EQ(app.storedCount(), 3);
    ASSERT_TRUE(other.release()) << other.errors();
    log.clear();
    app.fire(1);
    EXPECT_EQ(log.count(kSaveFailed, true), 0u);
    EXPECT_EQ(readStore(layout.store).rows, 4);
  }

  log.clear();
  {
    LockingProcess other(layout.store, "exclusive", dir.path());
    ASSERT_TRUE(other.locked()) << other.errors();
    {
      Harness app({.root = dir.path()});
      app.nextSeq = 100;
      app.fire(1);
      EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::memory);
      EXPECT_EQ(app.storedCount(), 1);
    }
    EXPECT_EQ(log.count(kOpenFailed), 1u);
    EXPECT_EQ(log.count(kRecreateFailed), 1u);
    ASSERT_TRUE(other.release()) << other.errors();
  }
  Harness app({.root = dir.path()});
  EXPECT_EQ(app.storeKind(), EventDataManager::StoreKind::sqlite);
  EXPECT_EQ(app.storedCount(), 4);
  const StoreContents contents = readStore(layout.store);
  EXPECT_EQ(contents.integrity, "ok");
  EXPECT_EQ(contents.sequences, (std::set<int64_t>{0, 1, 2, 3}));
}

}  // namespace
}  // namespace vntr::test
