// The real monitor against a real kernel, inside network namespaces that each test creates for
// itself in a forked child. The host's own interfaces and routes are never touched: every `ip`
// command runs in the child after it has left the host's network namespace, and the namespace
// disappears with the child.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>
#include "facade/TagManagerCore.hpp"

#include "model/VNTREventPriority.hpp"
#include "platform/linux/RouteMonitor.hpp"
#include "support/Harness.hpp"
#include "support/NetworkNamespace.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;

using test::ip;
using test::ipAll;

/// Every value the monitor reported, in order.
class FlagLog {
 public:
  void record(uint32_t flags) {
    {
      std::scoped_lock lock(mutex_);
      seen_.push_back(flags);
    }
    changed_.notify_all();
  }
  size_t count() {
    std::scoped_lock lock(mutex_);
    return seen_.size();
  }
  /// Waits until a report after the first `since` ones says `flags` and is the latest so far.
  std::string waitFor(uint32_t flags, size_t since, const std::string& step,
                      std::chrono::seconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    const bool arrived = changed_.wait_for(
        lock, timeout, [&] { return seen_.size() > since && seen_.back() == flags; });
    if (arrived) return "";
    std::string history;
    for (size_t i = since; i < seen_.size(); ++i) history += " " + std::to_string(seen_[i]);
    return step + ": expected a callback with " + std::to_string(flags) + ", got [" + history +
           " ]";
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<uint32_t> seen_;
};

TEST(NetworkNamespace, followsDefaultRoutesLinksAndWwanThroughTheKernel) {
  VNTR_RUN_IN_NETWORK_NAMESPACE([]() -> std::string {
    VNTR_STEP(ipAll({{"link", "set", "lo", "up"}}));
    FlagLog log;
    bool thrown = false;
    auto monitor = RouteMonitor::start([&](uint32_t flags) {
      log.record(flags);
      // A throwing callback must not end the monitor; later steps still expect callbacks.
      if (!std::exchange(thrown, true)) throw std::runtime_error("thrown by the test callback");
    });
    if (!monitor) return "RouteMonitor::start failed in a fresh namespace";
    if (monitor->initialFlags() != 0) {
      return "only loopback, but initialFlags() is " + std::to_string(monitor->initialFlags());
    }

    size_t since = log.count();
    VNTR_STEP(ipAll({{"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                     {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                     {"-6", "addr", "add", "fd00:200::1/64", "dev", "v0", "nodad"},
                     {"link", "set", "v1", "up"},
                     {"link", "set", "v0", "up"},
                     {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
    VNTR_STEP(log.waitFor(kReachabilityReachable, since, "IPv4 default route through veth"));

    since = log.count();
    VNTR_STEP(ipAll({{"route", "del", "default"}}));
    VNTR_STEP(log.waitFor(0, since, "IPv4 default route deleted"));

    since = log.count();
    VNTR_STEP(ipAll({{"-6", "route", "add", "default", "via", "fd00:200::2", "dev", "v0"}}));
    VNTR_STEP(log.waitFor(kReachabilityReachable, since, "IPv6 default route"));

    since = log.count();
    VNTR_STEP(ipAll({{"link", "set", "v0", "down"}}));
    VNTR_STEP(log.waitFor(0, since, "interface of the default route down"));

    since = log.count();
    VNTR_STEP(ipAll({{"link", "add", "wwan0", "type", "veth", "peer", "name", "wwp1"},
                     {"addr", "add", "10.201.0.1/24", "dev", "wwan0"},
                     {"link", "set", "wwp1", "up"},
                     {"link", "set", "wwan0", "up"},
                     {"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
    VNTR_STEP(
        log.waitFor(kReachabilityReachable | kReachabilityIsWWAN, since, "default via wwan0"));

    // With both uplinks present the other one names the connection type.
    since = log.count();
    VNTR_STEP(
        ipAll({{"link", "set", "v0", "up"},
               {"route", "add", "default", "via", "10.200.0.2", "dev", "v0", "metric", "50"}}));
    VNTR_STEP(log.waitFor(kReachabilityReachable, since, "default via v0 and wwan0"));

    since = log.count();
    VNTR_STEP(ipAll({{"route", "flush", "exact", "0.0.0.0/0"}}));
    VNTR_STEP(log.waitFor(0, since, "both default routes flushed"));

    // One multipath route; when v0 loses its carrier the kernel marks that next hop linkdown.
    since = log.count();
    VNTR_STEP(ipAll({{"route", "add", "default", "nexthop", "via", "10.200.0.2", "dev", "v0",
                      "nexthop", "via", "10.201.0.2", "dev", "wwan0"}}));
    VNTR_STEP(log.waitFor(kReachabilityReachable, since, "multipath default"));
    since = log.count();
    VNTR_STEP(ipAll({{"link", "set", "v1", "down"}}));
    VNTR_STEP(log.waitFor(kReachabilityReachable | kReachabilityIsWWAN, since,
                          "multipath default with v0 without carrier"));

    since = log.count();
    VNTR_STEP(ipAll({{"route", "del", "default"}}));
    VNTR_STEP(log.waitFor(0, since, "all default routes deleted"));
    monitor.reset();  // stops and joins; a hang here ends in the parent's timeout
    return thrown ? "" : "the callback was never called";
  });
}

TEST(NetworkNamespace, aBurstOfRouteChangesCostsFewRecomputations) {
  VNTR_RUN_IN_NETWORK_NAMESPACE([]() -> std::string {
    VNTR_STEP(ipAll({{"link", "set", "lo", "up"},
                     {"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                     {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                     {"link", "set", "v1", "up"},
                     {"link", "set", "v0", "up"},
                     {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
    FlagLog log;
    auto monitor = RouteMonitor::start([&](uint32_t flags) { log.record(flags); });
    if (!monitor) return "RouteMonitor::start failed in a fresh namespace";
    if (monitor->initialFlags() != kReachabilityReachable) {
      return "initialFlags() with a default route is " + std::to_string(monitor->initialFlags());
    }
    test::TempDir dir;
    constexpr int kRoutes = 1000;
    {
      std::ofstream batch(dir / "burst");
      for (int i = 0; i < kRoutes; ++i) {
        batch << "route add 10." << 1 + i / 250 << "." << i % 250 << ".0/24 dev v0\n";
      }
      for (int i = 0; i < kRoutes; ++i) {
        batch << "route del 10." << 1 + i / 250 << "." << i % 250 << ".0/24 dev v0\n";
      }
      batch << "route del default\n";
    }
    constexpr size_t kChanges = 2 * kRoutes + 1;
    const size_t before = log.count();
    VNTR_STEP(ipAll({{"-batch", (dir / "burst").string()}}));
    VNTR_STEP(log.waitFor(0, before, "after the burst", 10s));
    const size_t callbacks = log.count() - before;
    if (callbacks > kChanges / 20) {
      return std::to_string(kChanges) + " changes caused " + std::to_string(callbacks) +
             " callbacks";
    }
    std::printf("[ info ] %zu route changes, %zu callbacks\n", kChanges, callbacks);
    std::fflush(stdout);  // the child ends with _exit
    return "";
  });
}

TEST(NetworkNamespace, startReturnsNullWhenNoSocketCanBeOpened) {
  VNTR_RUN_IN_NETWORK_NAMESPACE([]() -> std::string {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const bool started = RouteMonitor::start([](uint32_t) {}) != nullptr;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (started) return "start() succeeded without file descriptors";
    if (RouteMonitor::start([](uint32_t) {}) == nullptr) return "start() failed afterwards";
    return "";
  });
}

// The real route monitor gating a requester on a manual main queue and fake clock: a reachable
// report hands work to the main queue, which the test then steps itself. Batches go to a recording
// transport, so no traffic leaves the namespace.
constexpr uint32_t kReachable = VNTRReachability::kReachable;
constexpr uint32_t kCellular = VNTRReachability::kReachable | VNTRReachability::kIsWWAN;

#define CHECK_THAT(condition, what) \
  do {                              \
    if (!(condition)) return what;  \
  } while (false)

bool names(const nlohmann::json& request, const std::string& event) {
  return request.is_object() &&
         request.value(nlohmann::json::json_pointer("/params/events/0"), nlohmann::json()) == event;
}

/// The connection type recorded for `event`, wherever its request is now: stored or sent.
nlohmann::json connectionTypeOf(test::Harness& h, const std::string& event) {
  auto requests = test::storedRequests(*h.runtime);
  for (const auto& body : h.transport->bodies()) {
    for (const auto& member : nlohmann::json::parse(body, nullptr, false))
      requests.push_back(member);
  }
  for (const auto& request : requests) {
    if (names(request, event)) {
      return request.value(nlohmann::json::json_pointer("/params/deviceData/connectionType"), "");
    }
  }
  return "(no request)";
}

std::string requesterFollowsTheKernel() {
  VNTR_STEP(ipAll({{"link", "set", "lo", "up"}}));
  test::Harness h({.reachabilitySource = VNTRReachability::Source::kernel});
  auto& requester = h.runtime->requester();  // also starts the monitor
  auto& reachability = h.runtime->reachability();
  const auto fire = [&](const std::string& event) {
    h.runtime->tagManager().fireEvents({event}, "group", nlohmann::json::object(),
                                       VNTREventPriority::high, /*startRequester=*/true);
    h.queue->runUntilIdle();
  };
  const auto flagsBecome = [&](uint32_t flags) {
    return test::waitUntil([&] { return reachability.reachabilityFlags() == flags; }, 5s);
  };
  // The timer comes due while offline: it keeps its block (Stale), fire() does nothing.
  const auto heldWhileOffline = [&](size_t batches) {
    h.queue->advanceBy(2s);
    requester.fire();
    h.queue->advanceBy(30s);
    return h.transport->batches() == batches && requester.batchTimer()->isValid() &&
           !requester.isRequesting.load() && h.queue->pending() == 0;
  };
  // A reachable report sends the held batch at once; the clock does not move.
  const auto sentAtOnce = [&](size_t batches, const std::string& event) {
    if (!test::waitUntil([&] { return h.queue->pending() > 0; }, 5s)) return false;
    h.queue->runUntilIdle();
    bool carried = false;
    for (const auto& member : nlohmann::json::parse(h.transport->bodies().back())) {
      carried = carried || names(member, event);
    }
    return h.transport->batches() == batches && carried && h.storedCount() == 0;
  };

  CHECK_THAT(reachability.hasMonitor(), "the route monitor did not start");
  CHECK_THAT(reachability.reachabilityFlags() == 0 && reachability.connectionType() == "none",
             "only loopback, yet reachable");
  fire("offline");
  CHECK_THAT(connectionTypeOf(h, "offline") == "none", "the event stored offline");
  CHECK_THAT(heldWhileOffline(0), "only loopback: a batch went out or the timer was dropped");
  VNTR_STEP(ipAll({{"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                   {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                   {"link", "set", "v1", "up"},
                   {"link", "set", "v0", "up"},
                   {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
  CHECK_THAT(flagsBecome(kReachable) && reachability.connectionType() == "wifi", "route via v0");
  CHECK_THAT(sentAtOnce(1, "offline"), "route via v0: the held batch did not go at once");

  VNTR_STEP(ipAll({{"link", "add", "wwan0", "type", "veth", "peer", "name", "wwp1"},
                   {"addr", "add", "10.201.0.1/24", "dev", "wwan0"},
                   {"link", "set", "wwp1", "up"},
                   {"link", "set", "wwan0", "up"},
                   {"route", "del", "default"},
                   {"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
  CHECK_THAT(flagsBecome(kCellular) && reachability.connectionType() == "carrier", "via wwan0");
  fire("cellular");
  CHECK_THAT(connectionTypeOf(h, "cellular") == "carrier", "the event stored on wwan0");

  VNTR_STEP(ipAll({{"route", "del", "default"}}));
  CHECK_THAT(flagsBecome(0), "the route went, yet still reachable");
  h.queue->runUntilIdle();  // reports from before the deletion can no longer send anything
  const size_t sentBefore = h.transport->batches();
  fire("held");
  CHECK_THAT(connectionTypeOf(h, "held") == "none", "the event stored after the route went");
  CHECK_THAT(heldWhileOffline(sentBefore), "route gone: a batch went out or the timer was dropped");
  VNTR_STEP(ipAll({{"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
  CHECK_THAT(flagsBecome(kCellular), "the route came back, yet unreachable");
  CHECK_THAT(sentAtOnce(sentBefore + 1, "held"), "route back: the held batch did not go at once");
  return "";
}

TEST(NetworkNamespace, kernelRoutesGateTheRequesterAndNameTheConnectionType) {
  VNTR_RUN_IN_NETWORK_NAMESPACE(requesterFollowsTheKernel);
}

}  // namespace
}  // namespace vntr
