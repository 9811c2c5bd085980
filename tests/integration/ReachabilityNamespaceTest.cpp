// The real route monitor gating the real requester, inside a network namespace the test creates
// for itself in a forked child; the host's own interfaces and routes are never touched. Batches go
// to a recording transport, so no traffic leaves the namespace either.
//
// The monitor reports from its own thread. A reachable report runs the fire-now rule, which hands
// work to the test's manual main queue; the test waits (bounded) for the flags and for that work,
// then steps the queue itself, with the fake clock standing still unless it advances it.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "facade/TagManagerCore.hpp"
#include "model/VNTREventPriority.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "support/NetworkNamespace.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::Harness;
using test::ipAll;

constexpr uint32_t kReachable = VNTRReachability::kReachable;
constexpr uint32_t kCellular = VNTRReachability::kReachable | VNTRReachability::kIsWWAN;
constexpr auto kWaitLimit = 5s;

#define CHECK_THAT(condition, what) \
  do {                              \
    if (!(condition)) return what;  \
  } while (false)

std::string hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

/// Fires `event` through the intake, which stores it and starts the requester.
void fire(Harness& h, const std::string& event) {
  h.runtime->tagManager().fireEvents({event}, "group", nlohmann::json::object(),
                                     VNTREventPriority::high, /*startRequester=*/true);
  h.queue->runUntilIdle();
}

/// The event requests (syncEvent members) of a JSON array, or of one stored request.
std::vector<nlohmann::json> syncRequests(const std::string& text) {
  const auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  std::vector<nlohmann::json> requests;
  for (const auto& member : parsed.is_array() ? parsed : nlohmann::json::array({parsed})) {
    if (member.is_object() && member.value("method", "") == "syncEvent") {
      requests.push_back(member);
    }
  }
  return requests;
}

/// The value at `pointer` in `request`, or null when a server or store gave something else.
nlohmann::json field(const nlohmann::json& request, const std::string& pointer) {
  return request.value(nlohmann::json::json_pointer(pointer), nlohmann::json());
}

bool names(const nlohmann::json& request, const std::string& event) {
  const auto events = field(request, "/params/events");
  return events.is_array() && events.size() == 1 && events[0] == event;
}

/// The "connectionType" recorded in the request for `event`, wherever that request is now: still
/// stored, or already sent (a stray reachable report may send it before the test looks).
std::string connectionTypeOf(Harness& h, const std::string& event) {
  std::vector<std::string> texts = h.transport->bodies();
  h.runtime->store().performAndWait([&] {
    for (const auto& stored : h.runtime->store().deQueue(1000)) texts.push_back(stored->jsonData());
  });
  for (const auto& text : texts) {
    for (const auto& request : syncRequests(text)) {
      if (!names(request, event)) continue;
      const auto type = field(request, "/params/deviceData/connectionType");
      return type.is_string() ? type.get<std::string>() : "(not a string: " + type.dump() + ")";
    }
  }
  return "(no request for " + event + ")";
}

/// The events carried by the last batch sent.
std::vector<std::string> eventsInLastBatch(Harness& h) {
  const auto bodies = h.transport->bodies();
  std::vector<std::string> events;
  if (bodies.empty()) return events;
  for (const auto& request : syncRequests(bodies.back())) {
    const auto name = field(request, "/params/events/0");
    events.push_back(name.is_string() ? name.get<std::string>() : name.dump());
  }
  return events;
}

std::string waitForFlags(Harness& h, uint32_t flags, const std::string& step) {
  auto& reachability = h.runtime->reachability();
  if (test::waitUntil([&] { return reachability.reachabilityFlags() == flags; }, kWaitLimit)) {
    return "";
  }
  return step + ": reachability flags stayed " + hex(reachability.reachabilityFlags()) +
         " instead of " + hex(flags);
}

/// Waits until a reachable report has handed the requester's work to the (empty) main queue.
std::string waitForMainQueueWork(Harness& h, const std::string& step) {
  if (test::waitUntil([&] { return h.queue->pending() > 0; }, kWaitLimit)) return "";
  return step + ": no work reached the main queue after the reachable report";
}

/// The requester's timer came due while offline: it keeps its block, nothing is in flight.
std::string expectStale(Harness& h, size_t batches, const std::string& step) {
  auto& requester = h.runtime->requester();
  CHECK_THAT(h.transport->batches() == batches,
             step + ": " + std::to_string(h.transport->batches()) + " batches sent instead of " +
                 std::to_string(batches));
  CHECK_THAT(requester.batchTimer()->isValid(), step + ": batch timer no longer valid (not Stale)");
  CHECK_THAT(!requester.isRequesting.load(), step + ": requester still requesting");
  return "";
}

std::string offlineThenOnlineThenCellularThenOfflineAgain() {
  VNTR_STEP(ipAll({{"link", "set", "lo", "up"}}));
  Harness h({.reachabilitySource = VNTRReachability::Source::kernel});
  auto& requester = h.runtime->requester();  // also starts the monitor
  auto& reachability = h.runtime->reachability();
  CHECK_THAT(reachability.hasMonitor(), std::string("the route monitor did not start"));

  // Only loopback: events say "none", and the batch that comes due is held (Stale).
  CHECK_THAT(reachability.reachabilityFlags() == 0,
             "only loopback, yet flags are " + hex(reachability.reachabilityFlags()));
  CHECK_THAT(reachability.connectionType() == "none",
             "only loopback, yet the connection type is " + reachability.connectionType());
  fire(h, "offline");
  const std::string offlineType = connectionTypeOf(h, "offline");
  CHECK_THAT(offlineType == "none", "event stored offline says " + offlineType);
  h.queue->advanceBy(2s);
  VNTR_STEP(expectStale(h, 0, "only loopback, after the batch interval"));
  requester.fire();
  h.queue->advanceBy(30s);
  VNTR_STEP(expectStale(h, 0, "only loopback, fire() while Stale"));
  CHECK_THAT(h.queue->pending() == 0, std::string("only loopback: work left on the main queue"));

  // A veth with an address and a default route: the reachable report sends the held batch at
  // once; the clock does not move.
  VNTR_STEP(ipAll({{"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                   {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                   {"link", "set", "v1", "up"},
                   {"link", "set", "v0", "up"},
                   {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
  VNTR_STEP(waitForFlags(h, kReachable, "default route through v0"));
  CHECK_THAT(reachability.connectionType() == "wifi",
             "default route through v0 gives " + reachability.connectionType());
  VNTR_STEP(waitForMainQueueWork(h, "default route through v0"));
  h.queue->runUntilIdle();
  CHECK_THAT(h.transport->batches() == 1,
             "default route through v0: " + std::to_string(h.transport->batches()) +
                 " batches sent at once instead of 1");
  CHECK_THAT(eventsInLastBatch(h) == std::vector<std::string>{"offline"},
             std::string("default route through v0: the batch did not carry the held event"));
  CHECK_THAT(h.storedCount() == 0, std::string("default route through v0: events left stored"));

  // Only a WWAN-named interface carries the default route: new events say "carrier".
  VNTR_STEP(ipAll({{"link", "add", "wwan0", "type", "veth", "peer", "name", "wwp1"},
                   {"addr", "add", "10.201.0.1/24", "dev", "wwan0"},
                   {"link", "set", "wwp1", "up"},
                   {"link", "set", "wwan0", "up"},
                   {"route", "del", "default"},
                   {"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
  VNTR_STEP(waitForFlags(h, kCellular, "default route through wwan0"));
  CHECK_THAT(reachability.connectionType() == "carrier",
             "default route through wwan0 gives " + reachability.connectionType());
  fire(h, "cellular");
  const std::string cellularType = connectionTypeOf(h, "cellular");
  CHECK_THAT(cellularType == "carrier", "event stored on wwan0 says " + cellularType);

  // The route goes: the next batch is held until it returns, then goes out at once.
  VNTR_STEP(ipAll({{"route", "del", "default"}}));
  VNTR_STEP(waitForFlags(h, 0, "default route through wwan0 deleted"));
  // Reports from before the deletion may have queued work; it can no longer send anything.
  h.queue->runUntilIdle();
  const size_t sentBefore = h.transport->batches();
  fire(h, "held");
  const std::string heldType = connectionTypeOf(h, "held");
  CHECK_THAT(heldType == "none", "event stored after the route went says " + heldType);
  h.queue->advanceBy(2s);
  VNTR_STEP(expectStale(h, sentBefore, "route deleted, after the batch interval"));
  requester.fire();
  h.queue->advanceBy(30s);
  VNTR_STEP(expectStale(h, sentBefore, "route deleted, fire() while Stale"));
  CHECK_THAT(h.queue->pending() == 0, std::string("route deleted: work left on the main queue"));

  VNTR_STEP(ipAll({{"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
  VNTR_STEP(waitForFlags(h, kCellular, "default route through wwan0 restored"));
  VNTR_STEP(waitForMainQueueWork(h, "default route through wwan0 restored"));
  h.queue->runUntilIdle();
  CHECK_THAT(h.transport->batches() == sentBefore + 1,
             "route restored: " + std::to_string(h.transport->batches() - sentBefore) +
                 " batches sent at once instead of 1");
  const auto sent = eventsInLastBatch(h);
  CHECK_THAT(std::find(sent.begin(), sent.end(), "held") != sent.end(),
             std::string("route restored: the batch did not carry the held event"));
  CHECK_THAT(h.storedCount() == 0, std::string("route restored: events left stored"));
  return "";
}

TEST(ReachabilityNamespace, kernelRoutesGateTheRequesterAndNameTheConnectionType) {
  VNTR_RUN_IN_NETWORK_NAMESPACE(offlineThenOnlineThenCellularThenOfflineAgain);
}

}  // namespace
}  // namespace vntr
