// Link and route traffic that leaves the reachability as it was (bridges, veths, routes to other
// networks) must not ask the requester for a batch: with the server asking for a long interval,
// nothing goes out until the interval has passed. Runs in a network namespace of its own.

#include <gtest/gtest.h>

#include <chrono>
#include <vntr/VNTRTagManager.hpp>

#include "support/Harness.hpp"
#include "support/NetworkNamespace.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::ipAll;

std::string unrelatedTrafficSendsNoExtraBatch() {
  VNTR_STEP(ipAll({{"link", "set", "lo", "up"},
                   {"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                   {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                   {"link", "set", "v1", "up"},
                   {"link", "set", "v0", "up"},
                   {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
  test::Harness h({.reachabilitySource = VNTRReachability::Source::kernel});
  auto& requester = h.runtime->requester();
  auto& reachability = h.runtime->reachability();
  if (reachability.reachabilityFlags() != VNTRReachability::kReachable) {
    return "a default route through v0, yet flags are " +
           std::to_string(reachability.reachabilityFlags());
  }
  requester.setBatchInterval(120'000);  // as a server asking for 120 s does
  h.storeEvents(1);
  requester.fire();
  h.queue->advanceBy(2s);
  if (h.transport->batches() != 1) return "the first batch did not go out after 2 s";
  h.storeEvents(1);
  requester.fire();
  h.queue->runUntilIdle();  // the next timer is armed for 120 s

  for (int round = 0; round < 3; ++round) {
    VNTR_STEP(ipAll({{"link", "add", "br0", "type", "bridge"},
                     {"link", "set", "br0", "up"},
                     {"link", "add", "v2", "type", "veth", "peer", "name", "v3"},
                     {"route", "add", "10.9.0.0/24", "dev", "v0"},
                     {"route", "del", "10.9.0.0/24", "dev", "v0"},
                     {"link", "del", "v2"},
                     {"link", "del", "br0"}}));
  }
  // A change the monitor does report comes after all of the above: once it is seen, every
  // earlier notification has been handled. Losing the default route asks for no batch either.
  VNTR_STEP(ipAll({{"route", "del", "default"}}));
  if (!test::waitUntil([&] { return reachability.reachabilityFlags() == 0; }, 5s)) {
    return std::string("the default route's removal was never reported");
  }
  // A fire-now would have cancelled the 120 s timer and queued work for an immediate batch.
  if (!requester.batchTimer()->isValid()) return std::string("the 120 s timer was cancelled");
  if (h.queue->pending() != 1) return std::string("unrelated changes asked for a batch");
  h.queue->runUntilIdle();
  if (h.transport->batches() != 1) {
    return std::to_string(h.transport->batches() - 1) + " extra batches from unrelated changes";
  }
  return "";
}

TEST(ReachabilityChangesNamespace, unrelatedLinksAndRoutesSendNoExtraBatch) {
  VNTR_RUN_IN_NETWORK_NAMESPACE(unrelatedTrafficSendsNoExtraBatch);
}

}  // namespace
}  // namespace vntr
