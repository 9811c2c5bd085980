// Event store figures: checkID and deQueue(80) on a large queue, start-up (open + trim), and
// how many events per second go from createEvent to committed, and what one fdatasync of a
// freshly written page costs on the disk holding the temporary directory (each commit pays one).
//
//   build/<release dir>/bench/vntr_store_bench [--benchmark_filter=...]

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "core/SerialExecutor.hpp"
#include "model/Uuid.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;

fs::path makeTempDir() {
  std::string pattern = (fs::temp_directory_path() / "vntr-bench-XXXXXX").string();
  return fs::path(mkdtemp(pattern.data()));
}

// The size of a typical stored request.
std::string requestText() { return std::string(760, 'r'); }

// A store file holding `rows` requests created in the last hour, built once per size.
struct Fixture {
  fs::path dir;
  std::vector<std::string> ids;
};

const Fixture& fixture(int64_t rows) {
  static auto* const fixtures = new std::map<int64_t, Fixture>;
  auto& f = (*fixtures)[rows];
  if (!f.dir.empty()) return f;
  f.dir = makeTempDir();
  auto clock = std::make_shared<SystemClock>();
  auto queue = std::make_shared<ManualExecutor>();
  EventDataManager store(f.dir, queue, clock);
  queue->runUntilIdle();
  const double now = referenceDateSeconds(clock->now());
  store.performAndWait([&] {
    for (int64_t i = 0; i < rows; ++i) {
      f.ids.push_back(makeUuidString());
      store.insert(f.ids.back(), requestText(), now - 3600 + static_cast<double>(i) * 0.01);
    }
    store.saveContext();
  });
  return f;
}

void BM_checkID(benchmark::State& state) {
  const auto& f = fixture(state.range(0));
  auto queue = std::make_shared<ManualExecutor>();
  EventDataManager store(f.dir, queue, std::make_shared<SystemClock>());
  queue->runUntilIdle();
  size_t i = 0;
  store.performAndWait([&] {
    for (auto _ : state) {
      // Alternate a queued id and a fresh one (the usual case when choosing a new id).
      const bool hit = (i++ % 2) == 0;
      benchmark::DoNotOptimize(
          store.checkID(hit ? f.ids[(i * 7919) % f.ids.size()] : makeUuidString()));
    }
  });
}
BENCHMARK(BM_checkID)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_deQueue80(benchmark::State& state) {
  const auto& f = fixture(state.range(0));
  auto queue = std::make_shared<ManualExecutor>();
  EventDataManager store(f.dir, queue, std::make_shared<SystemClock>());
  queue->runUntilIdle();
  store.performAndWait([&] {
    for (auto _ : state) benchmark::DoNotOptimize(store.deQueue(80));
  });
}
BENCHMARK(BM_deQueue80)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Opening a store of 10,005 requests, five of them beyond the size bound: the constructor
// (fallback chain, integrity check) plus the start-up trim.
void BM_startUp(benchmark::State& state) {
  const auto& f = fixture(state.range(0));
  const fs::path work = makeTempDir();
  const fs::path file = work / "requests_Data.sqlite";
  for (auto _ : state) {
    state.PauseTiming();
    fs::copy_file(f.dir / "requests_Data.sqlite", file, fs::copy_options::overwrite_existing);
    auto queue = std::make_shared<ManualExecutor>();
    state.ResumeTiming();
    auto store = std::make_unique<EventDataManager>(work, queue, std::make_shared<SystemClock>());
    queue->runUntilIdle();
    state.PauseTiming();
    int64_t left = 0;
    store->performAndWait([&] { left = store->count(); });
    if (left != 10000) state.SkipWithError("the trim did not leave 10,000 requests");
    store.reset();
    state.ResumeTiming();
  }
  fs::remove_all(work);
}
BENCHMARK(BM_startUp)->Arg(10005)->Unit(benchmark::kMillisecond)->Iterations(20);

// Wakes the benchmark thread once `target` events were reported created, so the waiting
// thread takes no CPU from the store queue meanwhile.
class CountingDelegate : public VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    if (statistic != VNTRStatistic::eventCreated) return;
    std::scoped_lock lock(mutex_);
    created_ += adjustment;
    if (created_ >= target_) reached_.notify_all();
  }
  void reset(int64_t target) {
    std::scoped_lock lock(mutex_);
    created_ = 0;
    target_ = target;
  }
  void wait() {
    std::unique_lock lock(mutex_);
    reached_.wait(lock, [this] { return created_ >= target_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable reached_;
  int64_t created_ = 0;  // guarded by mutex_
  int64_t target_ = 0;   // guarded by mutex_
};

// A burst of createEvent calls from one thread; the time runs from the first call to the last
// eventCreated, which is reported only after the commit holding that event.
void BM_eventsStored(benchmark::State& state) {
  const int64_t burst = state.range(0);
  auto delegate = std::make_shared<CountingDelegate>();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  EventFacts facts;
  facts.siteId = "12345";
  facts.appId = "com.example.app";
  facts.os = "Linux 12";
  facts.lang = "en-US";
  facts.idfa = "00000000-0000-0000-0000-000000000000";
  facts.idfv = makeUuidString();
  facts.hardware = "x86_64";
  facts.appInstallTime = "20240101000000";
  facts.sdkVersion = "0.1.0";
  double callerSeconds = 0;
  for (auto _ : state) {
    const fs::path dir = makeTempDir();
    auto clock = std::make_shared<SystemClock>();
    auto queue = std::make_shared<SerialExecutor>("VNTRStoreBench");
    {
      EventDataManager store(dir, queue, clock);
      store.performAndWait([] {});  // start-up trim done
      const SyncEventEnvironment env{store, [&facts]() -> const EventFacts& { return facts; },
                                     [] { return "wifi"; }, clock};
      delegate->reset(burst);
      const auto start = std::chrono::steady_clock::now();
      for (int64_t i = 0; i < burst; ++i) {
        VNTRSyncEvent::createEvent(env, {"checkout", "pay"}, "purchase",
                                   {{"price", 9.99}, {"currency", "EUR"}, {"items", i}},
                                   VNTREventPriority::high);
      }
      const auto called = std::chrono::steady_clock::now();
      delegate->wait();
      const auto stored = std::chrono::steady_clock::now();
      state.SetIterationTime(std::chrono::duration<double>(stored - start).count());
      callerSeconds += std::chrono::duration<double>(called - start).count();
      int64_t count = 0;
      store.performAndWait([&] { count = store.count(); });
      if (count != burst) state.SkipWithError("not every event was stored");
    }
    fs::remove_all(dir);
  }
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
  state.SetItemsProcessed(state.iterations() * burst);
  state.counters["caller_ns_per_call"] =
      callerSeconds * 1e9 / static_cast<double>(state.iterations() * burst);
}
// The store queue's own work per event (build, id check, insert, commit share, statistic),
// run on the benchmark thread: the CPU cost behind the throughput above, free of scheduling.
void BM_storeQueueWork(benchmark::State& state) {
  const int64_t burst = state.range(0);
  EventFacts facts;
  facts.siteId = "12345";
  facts.appId = "com.example.app";
  facts.idfv = makeUuidString();
  for (auto _ : state) {
    state.PauseTiming();
    const fs::path dir = makeTempDir();
    auto clock = std::make_shared<SystemClock>();
    auto queue = std::make_shared<ManualExecutor>();
    auto store = std::make_unique<EventDataManager>(dir, queue, clock);
    queue->runUntilIdle();
    const SyncEventEnvironment env{*store, [&facts]() -> const EventFacts& { return facts; },
                                   [] { return "wifi"; }, clock};
    for (int64_t i = 0; i < burst; ++i) {
      VNTRSyncEvent::createEvent(env, {"checkout", "pay"}, "purchase",
                                 {{"price", 9.99}, {"currency", "EUR"}, {"items", i}},
                                 VNTREventPriority::high);
    }
    state.ResumeTiming();
    queue->runUntilIdle();
    state.PauseTiming();
    store.reset();
    fs::remove_all(dir);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * burst);
}
BENCHMARK(BM_storeQueueWork)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(5);

BENCHMARK(BM_eventsStored)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

// One 4 KiB write at the end of a file and the fdatasync that makes it durable, as a WAL commit
// appends its frames and syncs them.
void BM_fdatasync(benchmark::State& state) {
  const fs::path dir = makeTempDir();
  const int fd = ::open((dir / "sync").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  const std::string page(4096, 'p');
  for (auto _ : state) {
    if (fd < 0 || ::write(fd, page.data(), page.size()) != static_cast<ssize_t>(page.size()) ||
        ::fdatasync(fd) != 0) {
      state.SkipWithError("cannot write and sync a temporary file");
      break;
    }
  }
  if (fd >= 0) ::close(fd);
  fs::remove_all(dir);
}
BENCHMARK(BM_fdatasync)->Unit(benchmark::kMicrosecond)->Iterations(200);

}  // namespace
}  // namespace vntr

BENCHMARK_MAIN();
