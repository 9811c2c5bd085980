#include <gtest/gtest.h>
#include <vntr/vntr.h>

#include <future>

#include "core/SerialExecutor.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

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
