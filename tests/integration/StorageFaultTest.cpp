#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "facade/TagManagerCore.hpp"
#include "fault/FaultSupport.hpp"
#include "model/VNTREventPriority.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kSaveFailed = "[Error] Saving event queue failed with: ";
constexpr const char* kOpenFailed =
    "[Error] Failed to initialize the event store.  Attempting to create new store.";
constexpr const char* kRecreateFailed =
    "[Error] Failed to initialize new event store.  Will attempt in memory storage.";

/// One launch of an app over `root`: the runtime on one manual queue stepped by the test, a
/// mock transport that answers every request, pinned facts, reachable.
struct Launch {
  explicit Launch(const fs::path& root)
      : layout(root),
        queue(std::make_shared<ManualExecutor>()),
        transport(std::make_shared<RecordingTransport>()) {
    writeSiteID(layout.bundle);
    fs::create_directories(layout.documents);
    defaults = std::make_shared<UserDefaults>(layout.defaults);
    defaults->setString("IABConsent_SubjectToGDPR", "0");
    RuntimeOptions options;
    options.mainQueue = queue;
    options.storeQueue = queue;
    options.clock = queue->sharedClock();
    options.paths = ProcessPaths{layout.bundle, layout.documents, layout.defaults};
    options.facts = std::make_shared<FakeFacts>();
    options.httpClient = transport;
    options.consentGet = [](const std::string&, HTTPCompletion completion) {
      completion(std::nullopt, std::nullopt, HTTPError{"CURL", 7, "offline in tests"});
    };
    options.userDefaults = defaults;
    options.reachabilitySource = VNTRReachability::Source::host;
    options.initialReachabilityFlags = VNTRReachability::kReachable;
    runtime = std::make_unique<Runtime>(std::move(options));
  }
  ~Launch() { runtime.reset(); }

  /// `n` calls through intake; their store work runs before this returns.
  void fire(int n) {
    for (int i = 0; i < n; ++i) {
      runtime->tagManager().fireEvents({"fault"}, "storage", {{"seq", nextSeq++}},
                                       VNTREventPriority::high, /*startRequester=*/false);
      queue->runUntilIdle();
    }
  }
  /// One batch, answered by the mock.
  void sendBatch() {
    runtime->requester().fireNow();
    queue->runUntilIdle();
  }
  // Both run what is queued first: the store opens on its queue.
  int64_t count() {
    auto& store = runtime->store();
    queue->runUntilIdle();
    int64_t n = 0;
    store.performAndWait([&] { n = store.count(); });
    return n;
  }
  EventDataManager::StoreKind kind() {
    auto& store = runtime->store();
    queue->runUntilIdle();
    return store.kind();
  }

  HostLayout layout;
  std::shared_ptr<ManualExecutor> queue;
  std::shared_ptr<RecordingTransport> transport;
  std::shared_ptr<UserDefaults> defaults;
  std::unique_ptr<Runtime> runtime;
  int64_t nextSeq = 0;
};

size_t countStartingWith(const std::vector<std::string>& lines, const std::string& prefix) {
  return static_cast<size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const auto& line) { return line.rfind(prefix, 0) == 0; }));
}

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

// Root ignores file modes, so a read-only directory means nothing to it. Run as root, the test
// runs itself again as "nobody" and passes or fails with that run. True when this process is
// the one to run the test body.
bool runsUnprivileged() {
  if (::geteuid() != 0) return true;
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
  TempDir output;
  // The clone may live where "nobody" cannot enter (a 0700 home directory): the run uses a copy
  // of this program in a directory that everyone may enter.
  const auto readable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                        fs::perms::others_read | fs::perms::others_exec;
  TempDir runnable;
  fs::permissions(runnable.path(), readable);
  const auto program = runnable / "storage-fault-test";
  fs::copy_file(fs::read_symlink("/proc/self/exe"), program);
  fs::permissions(program, readable);
  auto options = command({program.string(), filter}, output / "stderr");
  options.stdoutFile = output / "stdout";
  options.runAs = 65534;
  ChildProcess child(options);
  EXPECT_TRUE(child.started());
  const auto status = child.wait(120s);
  const std::string report = readFile(output / "stdout") + readFile(output / "stderr");
  EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
      << "the run as nobody " << (status ? describeWaitStatus(*status) : "did not end") << ":\n"
      << report;
  EXPECT_NE(report.find("[  PASSED  ] 1 test"), std::string::npos) << report;
  return false;
}

// Writes fail as on a full disk: each failed save is logged, the requests stay in memory (and are
// counted as created, as they were), batches go on, and the first save after the disk has room
// again commits everything that waited, inserts and deletes alike.
TEST(StorageFaults, aFullDiskIsLoggedAndWhatWaitedIsSavedOnceThereIsRoom) {
  TempDir dir;
  CapturingLog log;
  InstalledCounter counts;
  Launch app(dir.path());
  app.fire(3);
  ASSERT_EQ(readStore(app.layout.store).rows, 3);
  log.clear();
  {
    FileSizeLimit full(0);
    app.fire(2);
    EXPECT_GE(countStartingWith(log.lines(), kSaveFailed), 2u);
    EXPECT_EQ(counts[VNTRStatistic::eventCreated], 5);
    EXPECT_EQ(app.count(), 5);  // kept, in memory
    app.sendBatch();            // all five answered; their deletes cannot be saved either
    EXPECT_EQ(counts[VNTRStatistic::eventResultProcessed], 5);
    EXPECT_EQ(app.count(), 0);
    app.fire(1);
    EXPECT_EQ(app.count(), 1);
  }
  EXPECT_EQ(readStore(app.layout.store).rows, 3);  // the file as before the disk filled up
  log.clear();
  app.fire(1);
  EXPECT_EQ(countStartingWith(log.lines(), kSaveFailed), 0u);
  const StoreContents contents = readStore(app.layout.store);
  EXPECT_EQ(contents.integrity, "ok");
  EXPECT_EQ(contents.sequences, (std::set<int64_t>{5, 6}));
  EXPECT_EQ(app.count(), 2);
}

// A data directory the app may not write to: the store falls back to memory for this launch
// (both failure lines) and the host carries on, sending what it records; a store file already
// there is left as it is, and the next launch with a writable directory finds its requests.
TEST(StorageFaults, aReadOnlyDataDirectoryFallsBackToMemoryAndKeepsTheFileForLater) {
  if (!runsUnprivileged()) return;
  TempDir dir;
  CapturingLog log;
  const HostLayout layout(dir.path());
  fs::create_directories(layout.documents);
  const auto readOnly = [&] { ::chmod(layout.documents.c_str(), 0500); };
  const auto writable = [&] { ::chmod(layout.documents.c_str(), 0700); };

  readOnly();
  {
    Launch app(dir.path());
    app.fire(2);
    EXPECT_EQ(app.kind(), EventDataManager::StoreKind::memory);
    EXPECT_EQ(app.count(), 2);
    app.sendBatch();
    EXPECT_EQ(app.transport->batches(), 1u);
    EXPECT_EQ(app.count(), 0);
  }
  EXPECT_EQ(log.count(kOpenFailed), 1u);
  EXPECT_EQ(log.count(kRecreateFailed), 1u);
  EXPECT_FALSE(fs::exists(layout.store));

  writable();
  {
    Launch app(dir.path());
    app.fire(3);
    EXPECT_EQ(app.kind(), EventDataManager::StoreKind::sqlite);
  }
  log.clear();
  readOnly();
  {
    Launch app(dir.path());
    app.nextSeq = 100;
    app.fire(1);
    EXPECT_EQ(app.kind(), EventDataManager::StoreKind::memory);
    EXPECT_EQ(app.count(), 1);
  }
  EXPECT_EQ(log.count(kOpenFailed), 1u);
  EXPECT_EQ(log.count(kRecreateFailed), 1u);

  writable();
  Launch app(dir.path());
  EXPECT_EQ(app.kind(), EventDataManager::StoreKind::sqlite);
  EXPECT_EQ(app.count(), 3);
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
    Launch app(dir.path());
    app.fire(2);
    log.clear();
    LockingProcess other(layout.store, "write", dir.path());
    ASSERT_TRUE(other.locked()) << other.errors();
    app.fire(1);
    EXPECT_EQ(
        log.count(std::string(kSaveFailed) + "database is locked, {code = 5, extendedCode = 5}"),
        1u);
    EXPECT_EQ(app.count(), 3);
    ASSERT_TRUE(other.release()) << other.errors();
    log.clear();
    app.fire(1);
    EXPECT_EQ(countStartingWith(log.lines(), kSaveFailed), 0u);
    EXPECT_EQ(readStore(layout.store).rows, 4);
  }

  log.clear();
  {
    LockingProcess other(layout.store, "exclusive", dir.path());
    ASSERT_TRUE(other.locked()) << other.errors();
    {
      Launch app(dir.path());
      app.nextSeq = 100;
      app.fire(1);
      EXPECT_EQ(app.kind(), EventDataManager::StoreKind::memory);
      EXPECT_EQ(app.count(), 1);
    }
    EXPECT_EQ(log.count(kOpenFailed), 1u);
    EXPECT_EQ(log.count(kRecreateFailed), 1u);
    ASSERT_TRUE(other.release()) << other.errors();
  }
  Launch app(dir.path());
  EXPECT_EQ(app.kind(), EventDataManager::StoreKind::sqlite);
  EXPECT_EQ(app.count(), 4);
  const StoreContents contents = readStore(layout.store);
  EXPECT_EQ(contents.integrity, "ok");
  EXPECT_EQ(contents.sequences, (std::set<int64_t>{0, 1, 2, 3}));
}

}  // namespace
}  // namespace vntr::test
