// Caller-thread and per-batch costs: fireEvents admitted and rejected (1 and 4 calling threads),
// building one event request, parsing an 81-entry batch answer, and the requester's own work
// for one batch against the canned transport.
//
//   build/<release dir>/bench/vntr_micro_bench [--benchmark_filter=...]

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRPreferences.hpp>

#include "Runtime.hpp"
#include "core/MainQueue.hpp"
#include "core/ManualExecutor.hpp"
#include "facade/TagManagerCore.hpp"
#include "model/Uuid.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "transport/HTTPMockClient.hpp"
#include "transport/VNTRRequestResponse.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

fs::path makeTempDir() {
  std::string pattern = (fs::temp_directory_path() / "vntr-micro-XXXXXX").string();
  return fs::path(mkdtemp(pattern.data()));
}

void writeSiteIdPlist(const fs::path& directory) {
  fs::create_directories(directory);
  std::ofstream(directory / "VantrelTagManagerSDKInfo.plist")
      << R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>VantrelSiteID</key><string>12345</string></dict></plist>
)";
}

const std::vector<std::string>& eventNames() {
  static const auto* const names = new std::vector<std::string>{"purchase"};
  return *names;
}

json eventData(int64_t i) { return {{"price", 9.99}, {"currency", "EUR"}, {"items", i}}; }

// A runtime of its own over a temporary directory, with the site ID set and consent settled.
// Queues are the library's real threads unless `queue` is given (then it is main and store
// queue). The transport is `transport`; reachability is reported by the host as `flags`.
struct BenchRuntime {
  BenchRuntime(uint32_t flags, std::shared_ptr<HTTPClientProtocol> transport,
               std::shared_ptr<ManualExecutor> queue = nullptr)
      : dir(makeTempDir()) {
    ProcessPaths paths{dir / "bundle", dir / "documents", dir / "defaults.json"};
    writeSiteIdPlist(paths.mainBundleDirectory);
    defaults = std::make_shared<UserDefaults>(paths.userDefaultsFile);
    defaults->setString("IABConsent_SubjectToGDPR", "0");
    RuntimeOptions options;
    if (queue) {
      options.mainQueue = queue;
      options.storeQueue = queue;
    }
    options.paths = paths;
    options.httpClient = std::move(transport);
    options.consentGet = [](const std::string&, HTTPCompletion completion) {
      completion(std::nullopt, std::nullopt, HTTPError{"CURL", 7, "offline in benchmarks"});
    };
    options.userDefaults = defaults;
    options.reachabilitySource = VNTRReachability::Source::host;
    options.initialReachabilityFlags = flags;
    runtime = std::make_unique<Runtime>(std::move(options));
    if (queue) queue->runUntilIdle();  // start-up trim
  }
  ~BenchRuntime() {
    runtime.reset();
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }

  fs::path dir;
  std::shared_ptr<UserDefaults> defaults;
  std::unique_ptr<Runtime> runtime;
};

// --- fireEvents on the caller's thread ---------------------------------------------------------

// Offline (reachability 0), so admitted events are stored but never sent: the first call arms
// the batch timer, which goes stale, and later calls skip the requester entirely.
BenchRuntime* intakeRuntime = nullptr;

void setUpIntake(const benchmark::State&) {
  VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::fatal);
  intakeRuntime = new BenchRuntime(0, std::make_shared<HTTPMockClient>());
  intakeRuntime->runtime->tagManager();  // consent decided before timing
}

void tearDownIntake(const benchmark::State&) {
  delete intakeRuntime;
  intakeRuntime = nullptr;
}

// Lets the library's threads finish what the timed calls gave them, so the work queues stay
// short and every timed call sees the same conditions. Not timed.
void settle(benchmark::State& state, Runtime& runtime) {
  state.PauseTiming();
  runtime.store().performAndWait([] {});
  mainQueue().performAndWait([] {});
  state.ResumeTiming();
}

constexpr int64_t kSettleEvery = 1024;

void BM_fireEvents_admitted(benchmark::State& state) {
  auto& runtime = *intakeRuntime->runtime;
  auto& tagManager = runtime.tagManager();
  const auto& names = eventNames();
  const std::string group = "checkout";
  const json data = eventData(state.thread_index());
  int64_t i = 0;
  for (auto _ : state) {
    tagManager.fireEvents(names, group, data, VNTREventPriority::high, true);
    if (++i % kSettleEvery == 0) settle(state, runtime);
  }
  runtime.store().performAndWait([] {});  // after the timed loop
  state.SetItemsProcessed(state.iterations());
}
// A fixed count per thread: every admitted call is stored afterwards (settle waits for that), so
// the store's pace, not the caller's, bounds how long this takes.
BENCHMARK(BM_fireEvents_admitted)
    ->Setup(setUpIntake)
    ->Teardown(tearDownIntake)
    ->Threads(1)
    ->Threads(4)
    ->Iterations(20000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// Rejected by the empty group: the checks run and the error line is handed to the main queue.
void BM_fireEvents_rejected(benchmark::State& state) {
  auto& runtime = *intakeRuntime->runtime;
  auto& tagManager = runtime.tagManager();
  const auto& names = eventNames();
  const std::string group;
  const json data = eventData(state.thread_index());
  int64_t i = 0;
  for (auto _ : state) {
    tagManager.fireEvents(names, group, data, VNTREventPriority::high, true);
    if (++i % kSettleEvery == 0) settle(state, runtime);
  }
  runtime.store().performAndWait([] {});  // after the timed loop
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_fireEvents_rejected)
    ->Setup(setUpIntake)
    ->Teardown(tearDownIntake)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// --- one event request -------------------------------------------------------------------------

// VNTRSyncEvent::make on the store queue: build the request text (id chosen against the
// store), insert it and commit it on its own, as an event outside a burst is.
void BM_makeSyncEvent(benchmark::State& state) {
  auto queue = std::make_shared<ManualExecutor>();
  BenchRuntime bench(0x2, std::make_shared<HTTPMockClient>(), queue);
  auto& runtime = *bench.runtime;
  const auto& env = runtime.syncEventEnvironment();
  auto& store = runtime.store();
  const auto& names = eventNames();
  const std::string group = "checkout";
  int64_t i = 0;
  store.performAndWait([&] {
    runtime.eventFacts();  // computed once per process in real use
    for (auto _ : state) {
      benchmark::DoNotOptimize(
          VNTRSyncEvent::make(env, names, group, eventData(i), VNTREventPriority::high));
      if (++i % 4096 == 0) {
        state.PauseTiming();
        store.removeOldest(0);  // keep the queue near its usual size
        state.ResumeTiming();
      }
    }
  });
  queue->runUntilIdle();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_makeSyncEvent)->Unit(benchmark::kMicrosecond);

// --- the batch answer ---------------------------------------------------------------------------

// The body of a full batch: 80 event requests and one get-events request, as stored requests
// look (one representative request text with fresh ids).
std::string batchBody(Runtime& runtime, ManualExecutor& queue) {
  std::string body = "[";
  auto& store = runtime.store();
  store.performAndWait([&] {
    for (int i = 0; i < 80; ++i) {
      auto event = VNTRSyncEvent::make(runtime.syncEventEnvironment(), eventNames(), "checkout",
                                       eventData(i), VNTREventPriority::high);
      if (i > 0) body += ',';
      body += event->jsonData();
    }
    store.removeOldest(0);
  });
  queue.runUntilIdle();
  body += R"(,{"id":")" + makeUuidString() + R"(","method":"getEvents","params":{}})";
  body += ']';
  return body;
}

// The canned transport's answer to that body: 80 sync-event entries and one get-events entry.
std::string batchAnswer(const std::string& body) {
  std::string answer;
  HTTPMockClient().post(body, "http://127.0.0.1/tags",
                        [&](std::optional<std::string> data, auto, auto) {
                          if (data) answer = std::move(*data);
                        });
  return answer;
}

void BM_parseBatchAnswer81(benchmark::State& state) {
  auto queue = std::make_shared<ManualExecutor>();
  BenchRuntime bench(0x2, std::make_shared<HTTPMockClient>(), queue);
  const std::string answer = batchAnswer(batchBody(*bench.runtime, *queue));
  for (auto _ : state) {
    auto parsed = VNTRRequestResponse::make(answer);
    if (!parsed || parsed->methodResponses.size() != 81) {
      state.SkipWithError("the answer did not parse into 81 entries");
      break;
    }
    benchmark::DoNotOptimize(parsed);
  }
  state.counters["answer_bytes"] = static_cast<double>(answer.size());
}
BENCHMARK(BM_parseBatchAnswer81)->Unit(benchmark::kMicrosecond);

// The canned transport alone (parse the body, build and write the 81 answers): the share of
// BM_requesterBatch that is not the requester's.
void BM_mockTransport81(benchmark::State& state) {
  auto queue = std::make_shared<ManualExecutor>();
  BenchRuntime bench(0x2, std::make_shared<HTTPMockClient>(), queue);
  const std::string body = batchBody(*bench.runtime, *queue);
  HTTPMockClient mock;
  for (auto _ : state) {
    mock.post(body, "http://127.0.0.1/tags",
              [](std::optional<std::string> data, auto, auto) { benchmark::DoNotOptimize(data); });
  }
  state.counters["body_bytes"] = static_cast<double>(body.size());
}
BENCHMARK(BM_mockTransport81)->Unit(benchmark::kMicrosecond);

// --- the requester's batch -----------------------------------------------------------------------

// One batch cycle with 80 queued requests against the canned transport, on one manual queue:
// dequeue 80, build the body, post (the mock answers at once), parse the 81-entry answer,
// dispatch, delete and commit each answered request, hand the get-events result to the filter.
// Filling the queue is not timed.
void BM_requesterBatch(benchmark::State& state) {
  auto queue = std::make_shared<ManualExecutor>();
  auto mock = std::make_shared<HTTPMockClient>();
  BenchRuntime bench(0x2, mock, queue);
  auto& runtime = *bench.runtime;
  auto& store = runtime.store();
  auto& requester = runtime.requester();
  const auto& env = runtime.syncEventEnvironment();
  for (auto _ : state) {
    state.PauseTiming();
    store.performAndWait([&] {
      for (int i = 0; i < 80; ++i) {
        VNTRSyncEvent::make(env, eventNames(), "checkout", eventData(i), VNTREventPriority::high);
      }
    });
    queue->runUntilIdle();
    state.ResumeTiming();
    requester.performRemoteRequests();
    state.PauseTiming();
    queue->runUntilIdle();  // the next fire() arms the timer
    int64_t left = -1;
    store.performAndWait([&] { left = store.count(); });
    if (left != 0) {
      state.SkipWithError("the batch left requests in the queue");
      break;
    }
    state.ResumeTiming();
  }
}
BENCHMARK(BM_requesterBatch)->Unit(benchmark::kMillisecond)->Iterations(200);

// A transport that answers with text prepared before the batch (the answers to the 80 event
// requests) plus the get-events answer, whose id it finds in the body: next to nothing of its own
// cost, so the time is the requester's alone.
class PreparedAnswerTransport final : public HTTPClientProtocol {
 public:
  std::string eventAnswers;  // "{...},{...}," for the 80 event requests

  void post(std::string body, const std::string& url, HTTPCompletion completion) override {
    // The get-events request is the last member; its top-level id comes right before "jsonrpc".
    static const std::string marker = R"(","jsonrpc":"2.0","method":"getEvents")";
    std::string answer = "[" + eventAnswers;
    if (const auto end = body.rfind(marker); end != std::string::npos) {
      const auto start = body.rfind('"', end - 1) + 1;
      answer += R"({"id":")" + body.substr(start, end - start) +
                R"(","jsonrpc":"2.0","result":{"batchInterval":2000}})";
    } else if (answer.back() == ',') {
      answer.pop_back();
    }
    answer += ']';
    completion(std::move(answer), HTTPURLResponse{url, 200}, std::nullopt);
  }
};

void BM_requesterBatchOwn(benchmark::State& state) {
  auto queue = std::make_shared<ManualExecutor>();
  auto transport = std::make_shared<PreparedAnswerTransport>();
  BenchRuntime bench(0x2, transport, queue);
  auto& runtime = *bench.runtime;
  auto& store = runtime.store();
  auto& requester = runtime.requester();
  const auto& env = runtime.syncEventEnvironment();
  for (auto _ : state) {
    state.PauseTiming();
    transport->eventAnswers.clear();
    store.performAndWait([&] {
      for (int i = 0; i < 80; ++i) {
        auto event = VNTRSyncEvent::make(env, eventNames(), "checkout", eventData(i),
                                         VNTREventPriority::high);
        transport->eventAnswers +=
            R"({"id":")" + event->id() + R"(","jsonrpc":"2.0","result":{"status":"ok"}},)";
      }
    });
    queue->runUntilIdle();
    state.ResumeTiming();
    requester.performRemoteRequests();
    state.PauseTiming();
    queue->runUntilIdle();
    int64_t left = -1;
    store.performAndWait([&] { left = store.count(); });
    if (left != 0) {
      state.SkipWithError("the batch left requests in the queue");
      break;
    }
    state.ResumeTiming();
  }
}
BENCHMARK(BM_requesterBatchOwn)->Unit(benchmark::kMillisecond)->Iterations(200);

}  // namespace
}  // namespace vntr

BENCHMARK_MAIN();
