// The real route monitor against a real kernel, inside network namespaces that each test creates
// for itself in a forked child. The host's own interfaces and routes are never touched: every
// `ip` command runs in the child after it has left the host's network namespace, and the
// namespace disappears with the child.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "facade/TagManagerCore.hpp"
#include "platform/linux/RouteMonitor.hpp"
#include "support/Harness.hpp"
#include "support/NetworkNamespace.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::ipAll;
using Commands = std::vector<std::vector<std::string>>;
constexpr uint32_t kReachable = VNTRReachability::kReachable;
constexpr uint32_t kCellular = VNTRReachability::kReachable | VNTRReachability::kIsWWAN;

const Commands kVethDefault = {{"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                               {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                               {"-6", "addr", "add", "fd00:200::1/64", "dev", "v0", "nodad"},
                               {"link", "set", "v1", "up"},
                               {"link", "set", "v0", "up"},
                               {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}};
const Commands kWwanDefault = {{"link", "add", "wwan0", "type", "veth", "peer", "name", "wwp1"},
                               {"addr", "add", "10.201.0.1/24", "dev", "wwan0"},
                               {"link", "set", "wwp1", "up"},
                               {"link", "set", "wwan0", "up"},
                               {"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}};

/// Bridges and veths that come and go, and a thousand routes to other networks added and removed,
/// leave the reachability as it was; then the default route goes.
std::string writeUnrelatedBurst(const std::filesystem::path& file) {
  std::ofstream batch(file);
  batch << "link add br0 type bridge\nlink set br0 up\nlink add v2 type veth peer name v3\n";
  for (const char* verb : {"add", "del"}) {
    for (int i = 0; i < 1000; ++i) {
      batch << "route " << verb << " 10." << 1 + i / 250 << "." << i % 250 << ".0/24 dev v0\n";
    }
  }
  batch << "link del v2\nlink del br0\nroute del default\n";
  return batch ? "" : "the batch file could not be written";
}

std::string monitorFollowsTheKernel() {
  VNTR_STEP(ipAll({{"link", "set", "lo", "up"}}));
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const bool startedWithoutSockets = RouteMonitor::start([](uint32_t) {}) != nullptr;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  if (startedWithoutSockets) return "start() succeeded without file descriptors";

  std::atomic<size_t> reports{0};
  std::atomic<uint32_t> last{0};
  bool thrown = false;
  auto monitor = RouteMonitor::start([&](uint32_t flags) {
    last = flags;
    ++reports;
    // A throwing callback must not end the monitor; later steps still expect reports.
    if (!std::exchange(thrown, true)) throw std::runtime_error("thrown by the test callback");
  });
  if (!monitor || monitor->initialFlags() != 0) return "no monitor, or reachable over loopback";
  test::TempDir dir;
  VNTR_STEP(writeUnrelatedBurst(dir / "burst"));
  const struct {
    const char* what;
    Commands commands;
    uint32_t flags;
  } steps[] = {
      {"IPv4 default route through veth", kVethDefault, kReachable},
      // Reported once: unrelated changes are never reported, and a burst costs one recomputation.
      {"unrelated burst, then the default route deleted",
       {{"-batch", (dir / "burst").string()}},
       0},
      {"IPv6 default route",
       {{"-6", "route", "add", "default", "via", "fd00:200::2", "dev", "v0"}},
       kReachable},
      {"interface of the default route down", {{"link", "set", "v0", "down"}}, 0},
      {"default via wwan0", kWwanDefault, kCellular},
      // With both uplinks present the other one names the connection type.
      {"default via v0 and wwan0",
       {{"link", "set", "v0", "up"},
        {"route", "add", "default", "via", "10.200.0.2", "dev", "v0", "metric", "50"}},
       kReachable},
      {"both default routes flushed", {{"route", "flush", "exact", "0.0.0.0/0"}}, 0},
      {"multipath default",
       {{"route", "add", "default", "nexthop", "via", "10.200.0.2", "dev", "v0", "nexthop", "via",
         "10.201.0.2", "dev", "wwan0"}},
       kReachable},
      // When v0 loses its carrier the kernel marks that next hop linkdown.
      {"multipath default with v0 without carrier", {{"link", "set", "v1", "down"}}, kCellular},
  };
  for (const auto& step : steps) {
    const size_t since = reports;
    VNTR_STEP(ipAll(step.commands));
    if (!test::waitUntil([&] { return reports > since && last == step.flags; }, 10s) ||
        reports != since + 1) {
      return std::string(step.what) + ": " + std::to_string(reports - since) +
             " reports, the last " + std::to_string(last) + ", expected one report of " +
             std::to_string(step.flags);
    }
  }
  monitor.reset();  // stops and joins; a hang here ends in the parent's timeout
  return thrown ? "" : "the callback was never called";
}

TEST(NetworkNamespace, monitorFollowsDefaultRoutesLinksAndWwanThroughTheKernel) {
  VNTR_RUN_IN_NETWORK_NAMESPACE(monitorFollowsTheKernel);
}

// The real monitor gating a requester on a manual main queue and fake clock; batches go to a
// recording transport, so no traffic leaves the namespace.
std::string requesterFollowsTheKernel() {
  VNTR_STEP(ipAll({{"link", "set", "lo", "up"}}));
  test::Harness h({.reachabilitySource = VNTRReachability::Source::kernel});
  auto& requester = h.runtime->requester();  // also starts the monitor
  auto& reachability = h.runtime->reachability();
  const auto storedConnectionType = [&](const std::string& event) {
    h.runtime->tagManager().fireEvents({event}, "group", nlohmann::json::object(),
                                       VNTREventPriority::high, /*startRequester=*/true);
    h.queue->runUntilIdle();
    const auto stored = test::storedRequests(*h.runtime);  // newest first
    return stored.empty() ? "(nothing stored)"
                          : stored.front().value("/params/deviceData/connectionType"_json_pointer,
                                                 std::string());
  };
  const auto flagsBecome = [&](uint32_t flags) {
    return test::waitUntil([&] { return reachability.reachabilityFlags() == flags; }, 10s);
  };
  if (!reachability.hasMonitor()) return "the route monitor did not start";
  if (storedConnectionType("offline") != "none") return "stored offline, not as \"none\"";
  // The timer comes due while offline: it keeps its block, and nothing goes out.
  h.queue->advanceBy(2s);
  requester.fire();
  h.queue->advanceBy(30s);
  if (h.transport->batches() != 0 || !requester.batchTimer()->isValid() ||
      requester.isRequesting.load() || h.queue->pending() != 0) {
    return "only loopback: a batch went out or the timer was dropped";
  }
  VNTR_STEP(ipAll(kWwanDefault));
  if (!flagsBecome(kCellular)) return "a default route via wwan0, yet not cellular";
  // The reachable report sends the held batch at once; the clock does not move.
  if (!test::waitUntil([&] { return h.queue->pending() > 0; }, 10s)) return "nothing queued";
  h.queue->runUntilIdle();
  if (h.transport->batches() != 1 || h.storedCount() != 0) return "the held batch did not go";
  if (storedConnectionType("cellular") != "carrier") return "stored on wwan0, not as \"carrier\"";
  // Losing the route asks for no batch: only the timer armed by the last event is pending.
  const size_t pending = h.queue->pending();
  VNTR_STEP(ipAll({{"route", "del", "default"}}));
  if (!flagsBecome(0)) return "the route went, yet still reachable";
  return h.queue->pending() == pending ? "" : "losing the route asked for a batch";
}

TEST(NetworkNamespace, kernelRoutesGateTheRequesterAndNameTheConnectionType) {
  VNTR_RUN_IN_NETWORK_NAMESPACE(requesterFollowsTheKernel);
}

}  // namespace
}  // namespace vntr
