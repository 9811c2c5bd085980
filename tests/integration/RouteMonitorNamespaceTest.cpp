// The real monitor against a real kernel, inside network namespaces that each test creates for
// itself in a forked child. The host's own interfaces and routes are never touched: every `ip`
// command runs in the child after it has left the host's network namespace, and the namespace
// disappears with the child.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

#include "platform/linux/RouteMonitor.hpp"
#include "support/TestSupport.hpp"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

extern char** environ;

namespace vntr {
namespace {

using namespace std::chrono_literals;

constexpr int kSkipStatus = 77;

struct ChildOutcome {
  enum class Kind { passed, failed, skipped } kind = Kind::failed;
  std::string message;
};

void reportAndExit(int pipeFd, const std::string& message, int status) {
  size_t sent = 0;
  while (sent < message.size()) {
    const ssize_t n = ::write(pipeFd, message.data() + sent, message.size() - sent);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  ::_exit(status);
}

/// Runs `scenario` in a forked child inside a fresh network namespace (and, where possible, a
/// private mount namespace with its own sysfs, so /sys/class/net shows that namespace). The
/// scenario returns "" on success or what went wrong.
ChildOutcome runInNamespace(const std::function<std::string()>& scenario) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return {ChildOutcome::Kind::failed, "pipe failed"};
  const pid_t child = ::fork();
  if (child < 0) return {ChildOutcome::Kind::failed, "fork failed"};
  if (child == 0) {
    ::close(fds[0]);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::unshare(CLONE_NEWNET) != 0) {
      reportAndExit(fds[1],
                    std::string("cannot create a network namespace (needs root or "
                                "CAP_SYS_ADMIN): ") +
                        std::error_code(errno, std::generic_category()).message(),
                    kSkipStatus);
    }
    // Without a sysfs of its own the child would see the host's /sys/class/net. Propagation is
    // made private first so the new mount never reaches the host.
    if (::unshare(CLONE_NEWNS) == 0 &&
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
      ::mount("sysfs", "/sys", "sysfs", 0, nullptr);
    }
    std::string error;
    try {
      error = scenario();
    } catch (const std::exception& e) {
      error = std::string("scenario threw: ") + e.what();
    }
#if defined(__SANITIZE_ADDRESS__)
    // The child ends with _exit, which skips the leak check the sanitizer runs at exit.
    if (error.empty() && __lsan_do_recoverable_leak_check() != 0) error = "leaks reported above";
#endif
    reportAndExit(fds[1], error, error.empty() ? 0 : 1);
  }
  ::close(fds[1]);
  std::string message;
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  bool timedOut = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd pfd{fds[0], POLLIN, 0};
    if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count())) == 0) {
      timedOut = true;
      break;
    }
    char chunk[512];
    const ssize_t n = ::read(fds[0], chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    message.append(chunk, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  if (timedOut) ::kill(child, SIGKILL);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (timedOut) return {ChildOutcome::Kind::failed, "child timed out; " + message};
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {ChildOutcome::Kind::passed, ""};
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipStatus) {
    return {ChildOutcome::Kind::skipped, message};
  }
  return {ChildOutcome::Kind::failed,
          message.empty() ? "child ended with status " + std::to_string(status) : message};
}

#define RUN_IN_NAMESPACE(...)                                                         \
  do {                                                                                \
    const ChildOutcome outcome = runInNamespace(__VA_ARGS__);                         \
    if (outcome.kind == ChildOutcome::Kind::skipped) GTEST_SKIP() << outcome.message; \
    EXPECT_EQ(outcome.kind, ChildOutcome::Kind::passed) << outcome.message;           \
  } while (false)

/// Runs `ip` with `args`; true when it exited with 0.
bool ip(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  std::string program = "ip";
  argv.push_back(program.data());
  std::vector<std::string> copies = args;
  for (std::string& a : copies) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (::posix_spawnp(&pid, "ip", nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string ipAll(const std::vector<std::vector<std::string>>& commands) {
  for (const auto& args : commands) {
    if (!ip(args)) {
      std::string line = "ip";
      for (const std::string& a : args) line += " " + a;
      return "failed: " + line;
    }
  }
  return "";
}

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

#define STEP(expression)                      \
  do {                                        \
    std::string stepError = (expression);     \
    if (!stepError.empty()) return stepError; \
  } while (false)

TEST(RouteMonitorNamespace, followsDefaultRoutesLinksAndWwanThroughTheKernel) {
  RUN_IN_NAMESPACE([]() -> std::string {
    STEP(ipAll({{"link", "set", "lo", "up"}}));
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
    STEP(ipAll({{"link", "add", "v0", "type", "veth", "peer", "name", "v1"},
                {"addr", "add", "10.200.0.1/24", "dev", "v0"},
                {"-6", "addr", "add", "fd00:200::1/64", "dev", "v0", "nodad"},
                {"link", "set", "v1", "up"},
                {"link", "set", "v0", "up"},
                {"route", "add", "default", "via", "10.200.0.2", "dev", "v0"}}));
    STEP(log.waitFor(kReachabilityReachable, since, "IPv4 default route through veth"));

    since = log.count();
    STEP(ipAll({{"route", "del", "default"}}));
    STEP(log.waitFor(0, since, "IPv4 default route deleted"));

    since = log.count();
    STEP(ipAll({{"-6", "route", "add", "default", "via", "fd00:200::2", "dev", "v0"}}));
    STEP(log.waitFor(kReachabilityReachable, since, "IPv6 default route"));

    since = log.count();
    STEP(ipAll({{"link", "set", "v0", "down"}}));
    STEP(log.waitFor(0, since, "interface of the default route down"));

    since = log.count();
    STEP(ipAll({{"link", "add", "wwan0", "type", "veth", "peer", "name", "wwp1"},
                {"addr", "add", "10.201.0.1/24", "dev", "wwan0"},
                {"link", "set", "wwp1", "up"},
                {"link", "set", "wwan0", "up"},
                {"route", "add", "default", "via", "10.201.0.2", "dev", "wwan0"}}));
    STEP(log.waitFor(kReachabilityReachable | kReachabilityIsWWAN, since, "default via wwan0"));

    // With both uplinks present the other one names the connection type.
    since = log.count();
    STEP(ipAll({{"link", "set", "v0", "up"},
                {"route", "add", "default", "via", "10.200.0.2", "dev", "v0", "metric", "50"}}));
    STEP(log.waitFor(kReachabilityReachable, since, "default via v0 and wwan0"));

    since = log.count();
    STEP(ipAll({{"route", "flush", "exact", "0.0.0.0/0"}}));
    STEP(log.waitFor(0, since, "both default routes flushed"));

    // One multipath route; when v0 loses its carrier the kernel marks that next hop linkdown.
    since = log.count();
    STEP(ipAll({{"route", "add", "default", "nexthop", "via", "10.200.0.2", "dev", "v0", "nexthop",
                 "via", "10.201.0.2", "dev", "wwan0"}}));
    STEP(log.waitFor(kReachabilityReachable, since, "multipath default"));
    since = log.count();
    STEP(ipAll({{"link", "set", "v1", "down"}}));
    STEP(log.waitFor(kReachabilityReachable | kReachabilityIsWWAN, since,
                     "multipath default with v0 without carrier"));

    since = log.count();
    STEP(ipAll({{"route", "del", "default"}}));
    STEP(log.waitFor(0, since, "all default routes deleted"));
    monitor.reset();  // stops and joins; a hang here ends in the parent's timeout
    return thrown ? "" : "the callback was never called";
  });
}

TEST(RouteMonitorNamespace, aBurstOfRouteChangesCostsFewRecomputations) {
  RUN_IN_NAMESPACE([]() -> std::string {
    STEP(ipAll({{"link", "set", "lo", "up"},
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
    STEP(ipAll({{"-batch", (dir / "burst").string()}}));
    STEP(log.waitFor(0, before, "after the burst", 10s));
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

TEST(RouteMonitorNamespace, startReturnsNullWhenNoSocketCanBeOpened) {
  RUN_IN_NAMESPACE([]() -> std::string {
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

}  // namespace
}  // namespace vntr
