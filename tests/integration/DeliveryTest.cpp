// The whole pipeline over real HTTP under stress: intake, SQLite queue on disk, batch timer, curl
// transport, the sandbox tag server on 127.0.0.1, answers back into the store; and the store's
// file failing under it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Harness.hpp"
#include "support/Process.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using sandbox::Faults;
using Stat = VNTRStatistic;
using Fault = std::function<std::shared_ptr<void>(const HostLayout&)>;

// Consent as a consent tool changes it: given, refused, left to the remote check.
void changeConsent(UserDefaults& defaults, int step) {
  if (step % 4 == 0) return defaults.setString("IABConsent_SubjectToGDPR", "0");
  if (step % 4 == 3) return defaults.removeObjectForKey("IABConsent_ParsedVendorConsents");
  defaults.setString("IABConsent_SubjectToGDPR", "1");
  defaults.setString("IABConsent_ParsedPurposeConsents", "11111");
  defaults.setString("IABConsent_ParsedVendorConsents",
                     std::string(23, '1') + (step % 4 == 2 ? "0" : "1") + "11");
}

Faults faultsFor(int step) {
  const int k = step % 7;
  return {.statusCode = k == 3 ? 500 : 200,
          .dropShare = k == 1 ? 0.3 : (k == 6 ? 0.5 : 0.0),
          .errorEntries = k == 2 || k == 6,
          .malformedBody = k == 4,
          .emptyBody = k == 5};
}

// Eight threads fire while consent changes and the server drops answers, answers with errors,
// status 500, bodies that do not parse and none at all. Nothing may crash or race, and every
// created request is delivered (by the delegate's count and the server's) or still queued.
TEST(Delivery, underStressEveryCreatedRequestIsDeliveredOrStillQueued) {
  constexpr int kThreads = 8, kCalls = 10'000, kSteps = 50;
  sandbox::SandboxServer server(sandboxConfig(100));
  ASSERT_TRUE(server.start());
  VNTRPreferences::sharedPreferences().setServerURL(server.tagsURL());
  VNTRPreferences::sharedPreferences().setRequestTimeout(10);
  CapturingLog quiet(false);
  TempDir dir;
  LiveRuntime live(dir.path(), {.consentCheckURL = server.consentURL()});
  auto& runtime = live.runtime();
  const RecordingDelegate& counts = *live.delegate;
  const int64_t callsPerStep = int64_t{kThreads} * kCalls / kSteps;
  std::atomic<int64_t> fired{0};
  std::atomic<int> step{0};
  std::thread chaos([&] {
    for (int next = 1; next < kSteps; ++next) {
      waitUntil([&] { return fired.load() >= next * callsPerStep; }, 60s);
      changeConsent(live.defaults(), next);
      server.setFaults(faultsFor(next));
      step.store(next);
    }
  });
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        const int64_t n = fired.fetch_add(1);  // callers ahead of the changes wait for them
        waitUntil([&] { return n < (step.load() + 1) * callsPerStep; }, 60s);
        live.fireEvents({"stress", "load"}, "stress", {{"thread", t}, {"call", i}});
        if (i % 500 == 0) runtime.reachability().updateFlags(VNTRReachability::kReachable);
      }
    });
  }
  for (auto& caller : callers) caller.join();
  chaos.join();
  for (int next = 0; next < 14; ++next) {  // every kind of answer once more, two batches each
    server.setFaults(faultsFor(next));
    const int64_t target = server.stats().batches + 2;
    ASSERT_TRUE(waitUntil(
        [&] {
          runtime.reachability().updateFlags(VNTRReachability::kReachable);
          return server.stats().batches >= target;
        },
        30s));
  }
  // No batch may start from now on; the one in flight (if any) ends by answer or timeout.
  runtime.requester().setHttpClient(nullptr);
  runtime.mainQueue().performAndWait([] {});
  ASSERT_TRUE(waitUntil([&] { return !runtime.requester().isRequesting.load(); }, 30s));
  // Creation and delivery are both reported on the store queue: read there, they and the
  // queue's length are one consistent snapshot.
  int64_t created = 0, delivered = 0, queued = 0;
  runtime.store().performAndWait([&] {
    queued = runtime.store().count();
    created = counts[Stat::eventCreated];
    delivered = counts[Stat::eventResultProcessed];
  });
  const sandbox::Stats stats = server.stats();
  EXPECT_EQ(created, delivered + queued);
  EXPECT_EQ(delivered, stats.answered);
  EXPECT_LE(stats.events, created);
  EXPECT_GT(created, int64_t{kThreads} * kCalls / 4);
  EXPECT_LT(created, int64_t{kThreads} * kCalls);  // refused consent rejected some
  EXPECT_GT(counts[Stat::responseUnparsable], 0);
  EXPECT_GT(counts[Stat::responseEmpty], 0);
  EXPECT_GT(stats.duplicates, 0);
  VNTRPreferences::sharedPreferences().setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
}

// Storage faults: whatever the disk does, nothing accepted is lost.
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
  StoreLock(const std::filesystem::path& store, bool exclusive) {
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
