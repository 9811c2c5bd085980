// The result of the get-events request: the batch interval and the qualified-event list. Runs
// the request's own result handling against a real event filter and a real requester's
// setBatchInterval, then checks that the interval stayed within its bounds and that the
// published list is consistent with what the filter answers.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "FuzzSupport.hpp"
#include "core/ManualExecutor.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTRGetEvents.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "get-events result: %s\n", what.c_str());
  std::abort();
}

struct World {
  std::shared_ptr<vntr::FakeClock> clock = std::make_shared<vntr::FakeClock>();
  std::shared_ptr<vntr::ManualExecutor> storeQueue = std::make_shared<vntr::ManualExecutor>();
  vntr::EventDataManager store{vntr::fuzz::scratchDirectory(), storeQueue, clock};
  vntr::VNTRReachability reachability{vntr::VNTRReachability::Source::host, 0};
  std::shared_ptr<vntr::VNTRRequester> requester = std::make_shared<vntr::VNTRRequester>(
      vntr::fuzz::quietMainQueue(), store, reachability, nullptr, nullptr,
      [] { return std::string("http://127.0.0.1:9/"); });
  vntr::VNTREventFilter filter{0, clock};
  vntr::EventFacts facts;
  std::shared_ptr<vntr::VNTRGetEvents> request;

  World() {
    facts.siteId = "fuzz-site";
    vntr::GetEventsEnvironment env;
    env.facts = [this]() -> const vntr::EventFacts& { return facts; };
    env.filter = &filter;
    env.setBatchInterval = [weak = std::weak_ptr<vntr::VNTRRequester>(requester)](int64_t ms) {
      if (auto r = weak.lock()) r->setBatchInterval(ms);
    };
    request = vntr::VNTRGetEvents::make(env);
    if (!request) fail("the request could not be built");
    storeQueue->runUntilIdle();
  }
};

World& world() {
  static auto* const instance = new World;  // one per process, like the library's own
  return *instance;
}

void checkFilter(const vntr::VNTREventFilter& filter) {
  const auto snapshot = filter.snapshot();
  if (!std::isfinite(snapshot->expiry)) fail("expiry is not finite");
  const bool stale = filter.isStale(*snapshot);
  for (const auto& [name, ignoreBatch] : snapshot->qualifiedEventIgnoreBatch) {
    if (snapshot->qualifiedEvents.count(name) == 0) fail("ignoreBatch for an unlisted event");
    if (filter.wantsImmediateSend({name}) != (!stale && ignoreBatch)) {
      fail("wantsImmediateSend disagrees with the list");
    }
  }
  for (const auto& name : snapshot->qualifiedEvents) {
    if (!filter.admits({name})) fail("a listed event is not admitted");
  }
  if (!stale && filter.admits({"\x01 not a listed name"}) &&
      snapshot->qualifiedEvents.count("\x01 not a listed name") == 0) {
    fail("an unlisted event is admitted while the list is fresh");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  world();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto& w = world();
  const auto result =
      nlohmann::json::parse(vntr::fuzz::asText(data, size), nullptr, /*allow_exceptions=*/false);
  if (result.is_discarded()) return 0;

  w.requester->batchIntervalSeconds.store(2.0);
  w.request->processResult(result);

  const double interval = w.requester->batchIntervalSeconds.load();
  if (!(interval >= vntr::VNTRRequester::minimumBatchInterval &&
        interval <= vntr::VNTRRequester::maximumBatchInterval)) {
    fail("batch interval out of bounds: " + std::to_string(interval));
  }
  checkFilter(w.filter);
  vntr::fuzz::drainMainQueue();
  return 0;
}
