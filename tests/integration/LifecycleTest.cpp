#include <gtest/gtest.h>
#include <sys/wait.h>
#include <vntr/vntr.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "SandboxServer.hpp"
#include "core/SerialExecutor.hpp"
#include "facade/TagManagerCore.hpp"
#include "support/Process.hpp"
#include "model/VNTREventPriority.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "support/Harness.hpp"
#include "support/TestSupport.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Ended {
  std::string stdoutText, stderrText, report;
  int status = -1;
};

// Runs the fault child's "fire" mode in a fresh host directory.
Ended runFireChild(const fs::path& root, const std::string& serverURL, int64_t count,
                   const std::string& how) {
  const HostLayout host(root);
  writeSiteID(host.bundle);
  auto options = command({faultChildProgram(), "fire", host.root.string(), serverURL,
                          (root / "report").string(), std::to_string(count), how},
                         root / "stderr");
  options.stdoutFile = root / "stdout";
  ChildProcess child(options);
  Ended ended;
  if (const auto status = child.wait(120s)) ended.status = *status;
  ended.stdoutText = readFile(root / "stdout");
  ended.stderrText = readFile(root / "stderr");
  ended.report = readFile(root / "report");
  return ended;
}

// A host that fires and then returns from main (or calls exit) at once finds every accepted call
// in its store, and none of its callbacks runs after main has ended.
TEST(Lifecycle, everyCallAcceptedBeforeExitIsStoredAndNoCallbackRunsAfterMain) {
  TempDir dir;
  const int rounds = scaled(3, 1);
  int runs = 0;
  for (const int64_t count : {1, 10, 2000}) {
    for (const std::string how : {"return", "exit"}) {
      for (int round = 0; round < rounds; ++round, ++runs) {
        SCOPED_TRACE(std::to_string(count) + " then " + how + ", round " + std::to_string(round));
        const fs::path root = dir / ("host-" + std::to_string(runs));
        const Ended ended = runFireChild(root, "http://127.0.0.1:9/tags", count, how);
        ASSERT_TRUE(WIFEXITED(ended.status) && WEXITSTATUS(ended.status) == 0)
            << describeWaitStatus(ended.status) << "\n"
            << ended.stderrText;
        EXPECT_FALSE(hasSanitizerReport(ended.stderrText)) << ended.stderrText;
        const StoreContents contents = readStore(HostLayout(root).store);
        ASSERT_TRUE(contents.opened) << contents.error;
        EXPECT_EQ(contents.rows, count);
        EXPECT_EQ(contents.sequences.size(), static_cast<size_t>(count));
        const auto marker = ended.report.find("main returned\n");
        ASSERT_NE(marker, std::string::npos);
        EXPECT_EQ(marker + 14, ended.report.size()) << "a callback ran after main returned";
      }
    }
  }
}

// flush delivers and says so, also from inside a callback (where it must not wait); shutdown
// flushes and every later call, C or C++, is refused.
TEST(Lifecycle, flushAndShutdownReportWhatHappened) {
  TempDir dir;
  sandbox::SandboxConfig config;
  config.batchIntervalMs = 100;
  sandbox::SandboxServer server(config);
  ASSERT_TRUE(server.start());
  const Ended ended = runFireChild(dir / "host", server.tagsURL(), 200, "flush");
  ASSERT_TRUE(WIFEXITED(ended.status) && WEXITSTATUS(ended.status) == 0)
      << describeWaitStatus(ended.status) << "\n"
      << ended.stderrText;
  EXPECT_EQ(ended.stdoutText,
            "flush 1\n"
            "callback-flush 0 1\n"
            "shutdown 1\n"
            "vntr_fire_events 3\n"
            "vntr_flush 3\n"
            "vntr_shutdown 3\n");
  EXPECT_NE(ended.stderrText.find("has been shut down.  The call is refused."), std::string::npos);
  EXPECT_FALSE(hasSanitizerReport(ended.stderrText)) << ended.stderrText;
  EXPECT_EQ(readStore(HostLayout(dir / "host").store).rows, 0);
}

// A host callback (C API, with a context) cleared while the library is busy calling it: once the
// setter returns the old callback is neither running nor called again, so the context may go.
struct Slot {
  std::atomic<bool> retired{false}, cleared{false};
  std::atomic<int64_t> calls{0};
  std::atomic<int64_t>* heap = new std::atomic<int64_t>(0);  // freed when retired
  bool isLog = false, clearFromInside = false;
};
std::atomic<int64_t> lateCalls{0};

void clearCallback(bool isLog) {
  if (isLog) {
    vntr_set_logging_callback(nullptr, nullptr);
  } else {
    vntr_set_delegate(nullptr, nullptr);
  }
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
  const int rounds = scaled(40, 12);
  std::vector<std::unique_ptr<Slot>> slots;
  for (int round = 0; round < rounds; ++round) {
    auto& slot = *slots.emplace_back(std::make_unique<Slot>());
    slot.isLog = round % 2 == 0;
    slot.clearFromInside = round % 4 >= 2;
    if (slot.isLog) {
      vntr_set_logging_callback([](int, const char* const*, size_t, void* c) { touch(c); }, &slot);
    } else {
      vntr_set_delegate([](int64_t, int64_t, void* c) { touch(c); }, &slot);
    }
    ASSERT_TRUE(waitUntil([&] { return slot.calls > 0; })) << "round " << round;
    if (slot.clearFromInside) {
      ASSERT_TRUE(waitUntil([&] { return slot.cleared.load(); }));
    } else {
      clearCallback(slot.isLog);
    }
    slot.retired = true;
    delete slot.heap;
    slot.heap = nullptr;
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
    ChildProcess child(options);
    const auto status = child.wait(60s);
    ASSERT_TRUE(status.has_value());
    const std::string log = readFile(dir / "stderr");
    ASSERT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << describeWaitStatus(*status) << "\n"
        << log;
    EXPECT_FALSE(hasSanitizerReport(log)) << log;
    EXPECT_EQ(readStore(HostLayout(dir.path()).store).rows, 20);
  }
}

// The first call starts nothing itself (no store, requester, route monitor or transport): it
// returns while neither library queue can run at all.
TEST(Lifecycle, theFirstCallDoesNotWaitForStartUp) {
  TempDir dir;
  const auto paths = HostLayout(dir.path()).paths();
  writeSiteID(paths.mainBundleDirectory);
  auto defaults = std::make_shared<UserDefaults>(paths.userDefaultsFile);
  defaults->setString("IABConsent_SubjectToGDPR", "0");
  auto storeQueue = std::make_shared<SerialExecutor>("TestStore");
  auto mainQueue = std::make_shared<SerialExecutor>("TestMain");
  std::promise<void> release;
  const auto blocked = release.get_future().share();
  for (auto& queue : {storeQueue, mainQueue}) queue->post([blocked] { blocked.wait(); });
  RuntimeOptions options;
  options.mainQueue = mainQueue;
  options.storeQueue = storeQueue;
  options.paths = paths;
  options.facts = std::make_shared<FakeFacts>();
  options.userDefaults = defaults;
  options.reachabilitySource = VNTRReachability::Source::host;
  options.consentCheckURL = "http://127.0.0.1:9/gdpr/check/json/current";
  Runtime runtime(std::move(options));
  std::atomic<bool> returned{false};
  std::thread host([&] {
    runtime.tagManager().fireEvents({"first"}, "launch", nlohmann::json::object(),
                                    VNTREventPriority::high, true);
    returned = true;
  });
  EXPECT_TRUE(waitUntil([&] { return returned.load(); })) << "the first call waited for start-up";
  release.set_value();
  host.join();
  int64_t stored = 0;
  runtime.store().performAndWait([&] { stored = runtime.store().count(); });
  EXPECT_EQ(stored, 1);
}

}  // namespace
}  // namespace vntr::test
