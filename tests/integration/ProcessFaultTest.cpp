// Hosts in processes of their own (tests/integration/FaultChild.cpp): killed or ending while the
// library works, the store must stay sound and keep every saved request that was not answered;
// several on one data directory, or forked, deliver every request once, and none is held up by
// another one's death; ending right after firing, or through flush and shutdown, loses nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vntr/vntr.h>

#include <future>
#include <random>

#include "core/SerialExecutor.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Random unless VNTR_FAULT_SEED repeats a run.
std::mt19937 seeded() {
  const char* fixed = std::getenv("VNTR_FAULT_SEED");
  const uint32_t seed =
      fixed != nullptr ? static_cast<uint32_t>(std::stoul(fixed)) : std::random_device{}();
  std::cerr << "VNTR_FAULT_SEED=" << seed << "\n";
  return std::mt19937(seed);
}

struct Processes : testing::Test {
  Processes() {
    writeSiteID(host.bundle);
    EXPECT_TRUE(server.start());
    // Recorded before the answer leaves: an answer that never arrives only weakens the check.
    server.setBatchObserver([this](const nlohmann::json& batch) {
      if (batch.value("delivery", "") != "ok") return;
      std::scoped_lock lock(mutex);
      for (const auto& member : batch.value("members", nlohmann::json::array())) {
        const std::string answer = member.value("answer", "");
        const auto seq = sequenceOf(member);
        if (seq && (answer == "result" || answer == "error")) answered.insert(*seq);
      }
    });
  }
  // The fault child in `mode` on `where` (the shared directory unless given), numbering its events
  // from `firstSeq`, reporting to dir/<mode><firstSeq> and sending to `url` (the sandbox unless
  // given). No umask at all: its files must be the user's alone all the same.
  ChildProcess::Options hostProgram(const std::string& mode, int64_t firstSeq,
                                    const std::vector<std::string>& more,
                                    const HostLayout* where = nullptr, std::string url = {}) {
    std::vector<std::string> arguments{faultChildProgram(),
                                       mode,
                                       (where ? *where : host).root.string(),
                                       url.empty() ? server.tagsURL() : url,
                                       std::to_string(firstSeq),
                                       reportOf(mode, firstSeq).string()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto options = command(arguments, reportOf(mode, firstSeq).string() + ".stderr");
    options.stdoutFile = reportOf(mode, firstSeq).string() + ".stdout";
    options.umask = 0;
    // ThreadSanitizer refuses new threads in the child of a threaded process unless told to let
    // it try; the library must start its own there.
    for (auto& entry : options.environment) {
      if (entry.starts_with("TSAN_OPTIONS=")) entry += ":die_after_fork=0";
    }
    return options;
  }
  fs::path reportOf(const std::string& mode, int64_t firstSeq) {
    return dir / (mode + std::to_string(firstSeq));
  }
  // After a host whose events started at `firstSeq` is gone: the store opens, is sound, and holds
  // every saved, unanswered request numbered from `checkFrom` on.
  void expectNothingLost(const HostLayout& where, const std::string& mode, int64_t firstSeq,
                         int64_t checkFrom) {
    const int64_t count = readReportedCount(reportOf(mode, firstSeq));
    for (int64_t n = 0; n < count; ++n) saved.insert(firstSeq + n);
    const StoreContents contents = readStore(where.store);
    if (fs::exists(where.store) || !saved.empty()) {
      ASSERT_TRUE(contents.opened) << contents.error;
      ASSERT_EQ(contents.integrity, "ok");
    }
    const auto missing = missingFrom(contents, checkFrom);
    EXPECT_TRUE(missing.empty()) << missing.size() << " saved, unanswered requests lost, first "
                                 << missing.front();
    const std::string log = readFile(reportOf(mode, firstSeq).string() + ".stderr");
    EXPECT_EQ(log.find("Failed to initialize"), std::string::npos) << log;
    EXPECT_FALSE(hasSanitizerReport(log)) << log;
  }
  // Every sequence number in `expected` arrived exactly once, nothing else did, and the queue
  // is empty.
  void expectDeliveredOnce(const std::set<int64_t>& expected) {
    std::multiset<int64_t> received;
    for (const auto& event : server.events()) received.insert(sequenceOf(event).value_or(-1));
    EXPECT_EQ(received, std::multiset<int64_t>(expected.begin(), expected.end()));
    const auto contents = readStore(host.store);
    EXPECT_EQ(contents.integrity, "ok");
    EXPECT_EQ(contents.rows, 0);
  }
  // Saved requests without an answer, numbered from `firstSeq` on, that `contents` lacks (with
  // empty `contents`: every one the server still owes an answer).
  std::vector<int64_t> missingFrom(const StoreContents& contents, int64_t firstSeq = 0) {
    std::scoped_lock lock(mutex);
    std::vector<int64_t> missing;
    for (const int64_t seq : saved) {
      if (seq >= firstSeq && !answered.contains(seq) && !contents.sequences.contains(seq)) {
        missing.push_back(seq);
      }
    }
    return missing;
  }
  TempDir dir;
  HostLayout host{dir.path()};
  // The requests the children saved (each reports its running count after every eventCreated; the
  // test thread alone adds to it) and those the server answered; every saved request without an
  // answer must still be in the store. Both outlive the server, which adds answers.
  std::set<int64_t> saved;
  std::mutex mutex;
  std::set<int64_t> answered;  // guarded by mutex
  sandbox::SandboxServer server{sandboxConfig(100)};
};
using ProcessFaults = Processes;

// The numbers of the half-open ranges [from, to).
std::set<int64_t> ranges(const std::vector<std::pair<int64_t, int64_t>>& bounds) {
  std::set<int64_t> out;
  for (const auto& [from, to] : bounds) {
    for (int64_t i = from; i < to; ++i) out.insert(i);
  }
  return out;
}

// Every round starts a host on the same data directory and SIGKILLs it at a random moment: while
// it starts, while events are built and committed, or while a batch and its answer are out; the
// server answers late, leaves requests out, carries errors or does not parse. A last launch then
// sends everything the killed ones left behind. With no umask, the store, its companions and the
// user defaults stay the user's alone, and a store file found looser is tightened.
TEST_F(ProcessFaults, aKilledHostKeepsEverySavedRequestUntilALaterLaunchSendsIt) {
  std::mt19937 random = seeded();
  int64_t nextSeq = 0;
  for (int round = 0; round < scaled(24, 9) && !testing::Test::HasFailure(); ++round) {
    const int point = round % 3;  // 0: start-up, 1: intake, 2: batch
    SCOPED_TRACE("round " + std::to_string(round) + ", kill point " + std::to_string(point));
    server.setFaults({.dropShare = random() % 3 == 0 ? 0.3 : 0.0,
                      .errorEntries = random() % 4 == 0,
                      // a host stops firing while its store is full and nothing parses
                      .malformedBody = point != 1 && random() % 6 == 0,
                      .delayMs = static_cast<int>(random() % 8)});
    const fs::path report = reportOf("run", nextSeq);
    const int64_t batches = server.stats().batches + 1 + random() % 3;
    const int64_t created = 1 + random() % 400;
    ChildProcess child(hostProgram("run", nextSeq, {"1000000", "60"}));
    bool reached = child.started();
    if (point == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
    if (point == 1) reached = waitUntil([&] { return readReportedCount(report) >= created; }, 30s);
    if (point == 2) reached = waitUntil([&] { return server.stats().batches >= batches; }, 30s);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    ASSERT_FALSE(child.wait(0ms)) << "the host ended early:\n"
                                  << readFile(report.string() + ".stderr");
    child.kill();
    ASSERT_TRUE(reached) << "the host never got there:\n" << readFile(report.string() + ".stderr");
    expectNothingLost(host, "run", nextSeq, 0);
    // The start-up trim keeps at most 10,000 requests; the check above assumes it never had to.
    ASSERT_LT(readStore(host.store).rows, 9000);
    nextSeq += 1'000'000;
  }
  server.setFaults({});
  ::chmod(host.store.c_str(), 0644);  // found looser, tightened at the next launch
  ChildProcess drain(hostProgram("run", nextSeq, {"0", "60"}));
  EXPECT_TRUE(waitUntil([&] { return missingFrom({}).empty(); }, 30s))
      << missingFrom({}).size() << " requests never sent";
  EXPECT_GT(server.stats().answered, 0);
  const auto modeOf = [](const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
  };
  for (const std::string suffix : {"", "-wal", "-shm"}) {
    const fs::path file = host.store.string() + suffix;
    if (fs::exists(file)) {
      EXPECT_EQ(modeOf(file), 0600u) << file;
    }
  }
  EXPECT_EQ(modeOf(host.defaults), 0600u);
  EXPECT_EQ(modeOf(host.documents) & 077, 0u);
  EXPECT_EQ(modeOf(host.defaults.parent_path()) & 077, 0u);
}

// Every round starts a host whose own thread keeps firing, and ends its main thread, by
// returning from main or by calling exit, while the first batch starts the transport, while a
// batch is in flight, while the batch timer is armed, or at a random moment; every fourth round
// sends to a TLS server the transport refuses (though the host's environment names its
// certificate as trusted), so OpenSSL is at work when the process ends. The host exits with 0 and
// no sanitizer report.
TEST_F(ProcessFaults, aHostEndingWhileTheLibraryWorksExitsCleanlyAndKeepsItsRequests) {
  server.setBatchInterval(1000);
  std::unique_ptr<LoopbackServer> tls;
  const auto certificate = makeSelfSignedCertificate(dir.path());
  if (certificate) tls = std::make_unique<LoopbackServer>([](auto&) {}, &*certificate);
  std::mt19937 random = seeded();
  const char* points[] = {"start", "inflight", "timer", "random"};
  // Eight rounds hold each way of ending at each point once; two of them run over TLS.
  for (int round = 0; round < scaled(24, 8) && !testing::Test::HasFailure(); ++round) {
    const std::string how = round % 2 == 0 ? "return" : "exit";
    const std::string point = points[(round / 2) % 4];
    const bool overTLS = tls && tls->port() > 0 && round % 4 == 3;
    SCOPED_TRACE("round " + std::to_string(round) + ": " + how + " at " + point +
                 (overTLS ? " over TLS" : ""));
    server.setFaults({.delayMs = 20 + static_cast<int>(random() % 100)});
    const HostLayout own(dir / ("host-" + std::to_string(round)));
    writeSiteID(own.bundle);
    const int64_t firstSeq = int64_t{round} * 1'000'000;
    auto options = hostProgram("exit", firstSeq, {how, point, std::to_string(random())}, &own,
                               overTLS ? tls->url("/tags") : "");
    if (overTLS) {
      const std::string cert = certificate->certificate, certDir = dir.path().string();
      options.environment.insert(options.environment.end(),
                                 {"CURL_CA_BUNDLE=" + cert, "SSL_CERT_FILE=" + cert,
                                  "SSL_CERT_DIR=" + certDir, "CURL_HOME=" + certDir});
    }
    EXPECT_EQ(runToEnd(options, 60s).problem(), "");
    expectNothingLost(own, "exit", firstSeq, firstSeq);
  }
  EXPECT_TRUE(!tls || tls->requests() == 0) << "a request got through an untrusted certificate";
  EXPECT_FALSE(saved.empty());
}

// The parent's first `count` are still being built when it forks: the child must drop them, and
// each side delivers its own once.
TEST_F(Processes, aForkedChildAndItsParentEachDeliverTheirOwnRequestsOnce) {
  const int64_t count = scaled(200, 60);
  const Ended ended = runToEnd(hostProgram("fork", 0, {std::to_string(count)}), 120s);
  EXPECT_EQ(ended.problem(), "");
  expectDeliveredOnce(ranges({{0, 3 * count}}));
}

// A host killed while its batch waits for an answer holds up no other: two hosts started next
// share the queue, and between them send their own requests and all the killed one saved, each
// once, without a constraint or save failure.
TEST_F(Processes, aQueueSharedByProcessesSendsEachRequestOnceThoughOneIsKilledMidBatch) {
  server.setFaults({.delayMs = 60000});  // the first host's batch never gets its answer
  ChildProcess first(hostProgram("run", 0, {"50", "100"}));
  ASSERT_TRUE(waitUntil(
      [&] { return server.stats().batches >= 1 && readReportedCount(dir / "run0") == 50; }, 30s));
  first.kill();
  server.setFaults({});
  std::vector<std::future<Ended>> hosts;
  for (const int64_t firstSeq : {1000, 2000}) {
    hosts.push_back(std::async(std::launch::async, [this, firstSeq] {
      return runToEnd(hostProgram("run", firstSeq, {"300", "100"}), 120s);
    }));
  }
  for (auto& running : hosts) {
    const Ended ended = running.get();
    EXPECT_EQ(ended.problem(), "");
    for (const char* error : {"UNIQUE constraint", "Saving event queue failed"}) {
      EXPECT_EQ(ended.err.find(error), std::string::npos) << ended.err;
    }
  }
  expectDeliveredOnce(ranges({{0, 50}, {1000, 1300}, {2000, 2300}}));
}

// A host that fires and then returns from main (or calls exit) at once finds every accepted call
// in its store, and none of its callbacks runs after main has ended.
TEST_F(Processes, everyCallAcceptedBeforeExitIsStoredAndNoCallbackRunsAfterMain) {
  int runs = 0;
  for (const int64_t count : {1, 10, 2000}) {
    for (const std::string how : {"return", "exit"}) {
      for (int round = 0; round < scaled(3, 1); ++round, ++runs) {
        SCOPED_TRACE(std::to_string(count) + " then " + how + ", round " + std::to_string(round));
        const HostLayout own(dir / ("host-" + std::to_string(runs)));
        writeSiteID(own.bundle);
        const auto options = hostProgram("fire", runs, {std::to_string(count), how}, &own,
                                         "http://127.0.0.1:9/tags");
        ASSERT_EQ(runToEnd(options, 120s).problem(), "");
        const StoreContents contents = readStore(own.store);
        EXPECT_EQ(contents.rows, count) << contents.error;
        EXPECT_EQ(contents.sequences.size(), static_cast<size_t>(count));
        EXPECT_TRUE(readFile(reportOf("fire", runs)).ends_with("main returned\n"))
            << "a callback ran after main returned";
      }
    }
  }
}

// flush delivers and says so, also from inside a callback (where it must not wait); shutdown
// flushes and every later call, C or C++, is refused.
TEST_F(Processes, flushAndShutdownReportWhatHappened) {
  const Ended ended = runToEnd(hostProgram("fire", 0, {"200", "flush"}), 120s);
  ASSERT_EQ(ended.problem(), "");
  EXPECT_EQ(ended.out,
            "flush 1\n"
            "callback-flush 0 1\n"
            "shutdown 1\n"
            "vntr_fire_events 3\n"
            "vntr_flush 3\n"
            "vntr_shutdown 3\n");
  EXPECT_NE(ended.err.find("has been shut down.  The call is refused."), std::string::npos);
  EXPECT_EQ(readStore(host.store).rows, 0);
}

// Lifecycles inside one process: callbacks cleared while busy, a Python host, the first call.
// A host callback (C API, with a context) cleared while the library is busy calling it, from
// outside or from inside the callback: once the setter returns the old callback is neither running
// nor called again, so the context may go.
struct Slot {
  std::atomic<bool> retired{false}, cleared{false};
  std::atomic<int64_t> calls{0};
  std::atomic<int64_t>* heap = new std::atomic<int64_t>(0);  // freed when retired
  bool isLog = false, clearFromInside = false;
};
std::atomic<int64_t> lateCalls{0};

void clearCallback(bool isLog) {
  isLog ? vntr_set_logging_callback(nullptr, nullptr) : vntr_set_delegate(nullptr, nullptr);
}

void touch(void* context) {
  auto* slot = static_cast<Slot*>(context);
  if (slot->retired) ++lateCalls;
  ++*slot->heap;  // a use after free under AddressSanitizer if called too late
  if (slot->calls++ == 0 && slot->clearFromInside) {
    clearCallback(slot->isLog);
    slot->cleared = true;
  }
}

TEST(Lifecycle, aClearedCallbackIsNeverCalledAgain) {
  TempDir dir;
  writeSiteID(dir / "bundle");
  vntr_set_main_bundle_path((dir / "bundle").c_str());
  vntr_set_documents_directory((dir / "documents").c_str());
  vntr_set_user_defaults_path((dir / "defaults.json").c_str());
  vntr_use_host_reachability(0);
  vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0");
  vntr_set_log_level(VNTR_LOG_VERBOSE);
  std::atomic<bool> firing{true};
  std::thread host([&] {
    const char* events[] = {"busy"};
    for (int n = 0; firing && n < 200'000; ++n) {
      vntr_fire_events(events, 1, "busy", nullptr);
      // Keeps the builds waiting for the store few, so the process exits without a backlog.
      if (n % 200 == 199) Runtime::shared().store().performAndWait([] {});
    }
  });
  std::vector<std::unique_ptr<Slot>> slots;
  for (int round = 0; round < scaled(40, 12); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    auto& slot = *slots.emplace_back(std::make_unique<Slot>());
    slot.isLog = round % 2 == 0;
    slot.clearFromInside = round % 4 >= 2;
    if (slot.isLog) {
      vntr_set_logging_callback([](int, const char* const*, size_t, void* c) { touch(c); }, &slot);
    } else {
      vntr_set_delegate([](int64_t, int64_t, void* c) { touch(c); }, &slot);
    }
    ASSERT_TRUE(waitUntil([&] { return slot.calls > 0; }));
    if (!slot.clearFromInside) clearCallback(slot.isLog);
    ASSERT_TRUE(waitUntil([&] { return !slot.clearFromInside || slot.cleared; }));
    slot.retired = true;
    delete std::exchange(slot.heap, nullptr);
  }
  firing = false;
  host.join();
  vntr_set_log_level(VNTR_LOG_WARNING);
  EXPECT_EQ(lateCalls.load(), 0);
}

// A Python program using the C API through ctypes sets both callbacks, fires and exits at once.
// The interpreter ends foreign threads that call into it while it finalizes and then frees the
// callbacks' code: the host must still exit cleanly, with every event stored.
TEST(Lifecycle, aPythonHostWithBothCallbacksExitsAtOnceCleanly) {
  const fs::path python = "/usr/bin/python3";
  if (!fs::exists(python)) GTEST_SKIP() << "no " << python;
  TempDir dir;
  writeSiteID(dir / "bundle");
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    fs::remove_all(dir / "documents");
    auto options = command({python.string(), VNTR_PYTHON_HOST, VNTR_SHARED_LIBRARY,
                            dir.path().string(), "http://127.0.0.1:9/tags", "20"},
                           dir / "stderr");
    if (std::string(VNTR_SANITIZER_RUNTIME).size() > 0) {
      // The interpreter is not ours: only the library is checked, not Python's own leaks.
      options.environment.push_back(std::string("LD_PRELOAD=") + VNTR_SANITIZER_RUNTIME);
      options.environment.push_back("ASAN_OPTIONS=detect_leaks=0");
    }
    ASSERT_EQ(runToEnd(options, 60s).problem(), "");
    EXPECT_EQ(readStore(HostLayout(dir.path()).store).rows, 20);
  }
}

// The first call starts nothing itself (no store, requester, route monitor or transport): it
// returns while neither library queue can run at all.
TEST(Lifecycle, theFirstCallDoesNotWaitForStartUp) {
  TempDir dir;
  auto storeQueue = std::make_shared<SerialExecutor>("TestStore");
  auto mainQueue = std::make_shared<SerialExecutor>("TestMain");
  std::promise<void> release;
  const auto blocked = release.get_future().share();
  for (auto& queue : {storeQueue, mainQueue}) queue->post([blocked] { blocked.wait(); });
  LiveRuntime app(
      dir.path(),
      {.batchIntervalMs = std::nullopt, .mainQueue = mainQueue, .storeQueue = storeQueue});
  std::atomic<bool> returned{false};
  std::thread host([&] {
    app.fireEvents({"first"}, "launch");
    returned = true;
  });
  EXPECT_TRUE(waitUntil([&] { return returned.load(); })) << "the first call waited for start-up";
  release.set_value();
  host.join();
  EXPECT_EQ(app.storedCount(), 1);
}

}  // namespace
}  // namespace vntr::test
