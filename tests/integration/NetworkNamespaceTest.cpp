// The real route monitor against a real kernel, inside network namespaces that each test makes
// for itself: the test runs again in a process of its own under unshare, so the host's own
// interfaces and routes are never touched, and the namespace disappears with that process.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "facade/TagManagerCore.hpp"
#include "platform/linux/RouteMonitor.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using Commands = std::vector<std::vector<std::string>>;
constexpr uint32_t kReachable = VNTRReachability::kReachable;
constexpr uint32_t kCellular = VNTRReachability::kReachable | VNTRReachability::kIsWWAN;

// True in the test's own network namespace (with a sysfs of its own, so /sys/class/net shows that
// namespace), where the test goes on. Elsewhere runs the test again in one and records its outcome
// as this test's, or skips it without the right to make one; then false.
bool inOwnNetworkNamespace() {
  if (std::getenv("VNTR_RERUN") != nullptr) {
    ::mount("sysfs", "/sys", "sysfs", 0, nullptr);  // unshare keeps mounts from the host's view
    return true;
  }
  if (!runToEnd(command({"/usr/bin/unshare", "--net", "true"}), 30s).problem().empty()) {
    [] { GTEST_SKIP() << "cannot create a network namespace (needs root or CAP_SYS_ADMIN)"; }();
  } else {
    rerunCurrentTest({"/usr/bin/unshare", "--net", "--mount"});
  }
  return false;
}

// Runs each `ip` command in order; "" when all succeeded, else the one that failed.
std::string ipAll(const Commands& commands) {
  for (const auto& args : commands) {
    std::string line = "ip";
    for (const std::string& arg : args) line += " " + arg;
    if (std::system((line + " >/dev/null").c_str()) != 0) return "failed: " + line;
  }
  return "";
}

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

TEST(NetworkNamespace, monitorFollowsDefaultRoutesLinksAndWwanThroughTheKernel) {
  if (!inOwnNetworkNamespace()) return;
  ASSERT_EQ(ipAll({{"link", "set", "lo", "up"}}), "");
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const bool startedWithoutSockets = RouteMonitor::start([](uint32_t) {}) != nullptr;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_FALSE(startedWithoutSockets);

  std::atomic<size_t> reports{0};
  std::atomic<uint32_t> last{0};
  bool thrown = false;
  auto monitor = RouteMonitor::start([&](uint32_t flags) {
    last = flags;
    ++reports;
    // A throwing callback must not end the monitor; later steps still expect reports.
    if (!std::exchange(thrown, true)) throw std::runtime_error("thrown by the test callback");
  });
  ASSERT_TRUE(monitor);
  ASSERT_EQ(monitor->initialFlags(), 0u) << "reachable over loopback";
  // Bridges and veths that come and go, and a thousand routes to other networks added and
  // removed, leave the reachability as it was; then the default route goes.
  TempDir dir;
  std::ofstream burst(dir / "burst");
  burst << "link add br0 type bridge\nlink set br0 up\nlink add v2 type veth peer name v3\n";
  for (const char* verb : {"add", "del"}) {
    for (int i = 0; i < 1000; ++i) {
      burst << "route " << verb << " 10." << 1 + i / 250 << "." << i % 250 << ".0/24 dev v0\n";
    }
  }
  burst << "link del v2\nlink del br0\nroute del default\n";
  burst.close();
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
    SCOPED_TRACE(step.what);
    const size_t since = reports;
    ASSERT_EQ(ipAll(step.commands), "");
    EXPECT_TRUE(waitUntil([&] { return reports > since && last == step.flags; }, 10s)) << last;
    EXPECT_EQ(reports, since + 1) << "expected one report of " << step.flags;
  }
  monitor.reset();  // stops and joins; a hang here ends in the parent's timeout
  EXPECT_TRUE(thrown);
}

// The real monitor gating a requester on a manual main queue and fake clock; batches go to a
// recording transport, so no traffic leaves the namespace.
TEST(NetworkNamespace, kernelRoutesGateTheRequesterAndNameTheConnectionType) {
  if (!inOwnNetworkNamespace()) return;
  ASSERT_EQ(ipAll({{"link", "set", "lo", "up"}}), "");
  Harness h({.reachabilitySource = VNTRReachability::Source::kernel});
  auto& requester = h.runtime->requester();  // also starts the monitor
  auto& reachability = h.runtime->reachability();
  const auto storedConnectionType = [&](const std::string& event) {
    h.runtime->tagManager().fireEvents({event}, "group", nlohmann::json::object(),
                                       VNTREventPriority::high, /*startRequester=*/true);
    h.queue->runUntilIdle();
    const auto stored = storedRequests(*h.runtime);  // newest first
    return stored.empty() ? "(nothing stored)"
                          : stored.front().value("/params/deviceData/connectionType"_json_pointer,
                                                 std::string());
  };
  const auto flagsBecome = [&](uint32_t flags) {
    return waitUntil([&] { return reachability.reachabilityFlags() == flags; }, 10s);
  };
  ASSERT_TRUE(reachability.hasMonitor());
  EXPECT_EQ(storedConnectionType("offline"), "none");
  // The timer comes due while offline (only loopback): it keeps its block, and nothing goes out.
  h.queue->advanceBy(2s);
  requester.fire();
  h.queue->advanceBy(30s);
  EXPECT_EQ(h.transport->batches(), 0u);
  EXPECT_TRUE(requester.batchTimer()->isValid() && !requester.isRequesting.load());
  EXPECT_EQ(h.queue->pending(), 0u);
  ASSERT_EQ(ipAll(kWwanDefault), "");
  ASSERT_TRUE(flagsBecome(kCellular));
  // The reachable report sends the held batch at once; the clock does not move.
  ASSERT_TRUE(waitUntil([&] { return h.queue->pending() > 0; }, 10s));
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 1u);
  EXPECT_EQ(h.storedCount(), 0);
  EXPECT_EQ(storedConnectionType("cellular"), "carrier");
  // Losing the route asks for no batch: only the timer armed by the last event is pending.
  const size_t pending = h.queue->pending();
  ASSERT_EQ(ipAll({{"route", "del", "default"}}), "");
  ASSERT_TRUE(flagsBecome(0));
  EXPECT_EQ(h.queue->pending(), pending) << "losing the route asked for a batch";
}

}  // namespace
}  // namespace vntr::test
