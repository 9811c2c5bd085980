#include "platform/linux/RouteMonitor.hpp"

#include <cxxabi.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "core/SerialExecutor.hpp"
#include "platform/linux/Files.hpp"

namespace vntr {

namespace {

using Clock = std::chrono::steady_clock;

/// Large enough for any datagram the kernel builds for a dump or a notification.
constexpr size_t kBufferBytes = size_t{64} * 1024;
/// A dump that takes longer than this is abandoned and retried later.
constexpr auto kDumpTimeout = std::chrono::seconds(10);
/// After a failed dump the thread tries again this much later.
constexpr int kRetryMilliseconds = 1000;
/// Dumps the kernel flags as inconsistent are repeated at most this often; the change that
/// interrupted the last one is also announced, so the next wake-up corrects any residue.
constexpr int kDumpAttempts = 3;
/// Tools apply changes in quick succession (an interface coming up brings addresses and several
/// routes; `ip -batch` sends thousands): the tables are read once the notifications have paused
/// this long, which costs a single-change wake-up no noticeable delay.
constexpr auto kQuietPeriod = std::chrono::milliseconds(5);
/// A stream that never pauses still gets a recomputation this often.
constexpr auto kMaxSettle = std::chrono::milliseconds(200);
/// Upper bound on datagrams drained per wake-up, so an endless stream still gets recomputed.
constexpr int kMaxDrainReads = 4096;
/// sysfs uevent files are a few hundred bytes.
constexpr size_t kMaxUeventBytes = 4096;

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~UniqueFd() { reset(); }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

UniqueFd openRouteSocket(uint32_t groups) {
  UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!fd.valid()) return fd;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fd.reset();
  }
  return fd;
}

enum class Wait { readable, stopped, failed };

/// Waits until `fd` is readable, the stop eventfd fires or `deadline` passes.
Wait waitReadable(int fd, int stopFd, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Wait::failed;
    pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
    const int ready = ::poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return Wait::failed;
    if (fds[1].revents != 0) return Wait::stopped;
    if (fds[0].revents != 0) return Wait::readable;
  }
}

struct Datagram {
  ssize_t size = -1;  ///< -1 with `error` set when nothing was read
  int error = 0;
  bool fromKernel = false;
  bool truncated = false;
};

Datagram receive(int fd, std::vector<uint64_t>& buffer) {
  sockaddr_nl sender{};
  iovec vector{buffer.data(), buffer.size() * sizeof(uint64_t)};
  msghdr header{};
  header.msg_name = &sender;
  header.msg_namelen = sizeof sender;
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  Datagram datagram;
  do {
    datagram.size = ::recvmsg(fd, &header, MSG_DONTWAIT);
  } while (datagram.size < 0 && errno == EINTR);
  if (datagram.size < 0) {
    datagram.error = errno;
    return datagram;
  }
  // Only the kernel (port 0) speaks for the routing tables; other local processes could
  // address our port directly.
  datagram.fromKernel = header.msg_namelen >= sizeof sender && sender.nl_pid == 0;
  datagram.truncated = (header.msg_flags & MSG_TRUNC) != 0;
  return datagram;
}

std::optional<std::string> readSmallFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  std::string text(kMaxUeventBytes, '\0');
  size_t used = 0;
  while (used < text.size()) {
    const ssize_t got = ::read(fd.get(), text.data() + used, text.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    used += static_cast<size_t>(got);
  }
  text.resize(used);
  return text;
}

}  // namespace

struct RouteMonitor::State {
  Callback onChange;
  UniqueFd events;    // subscribed to link and route changes
  UniqueFd requests;  // dumps; reopened after a failure so no stale reply can linger
  UniqueFd stop;      // eventfd written by the destructor
  std::vector<uint64_t> buffer = std::vector<uint64_t>(kBufferBytes / sizeof(uint64_t));
  uint32_t sequence = 0;
  uint32_t lastReported = 0;  // the flags the callback last heard (the initial read at first)

  enum class Outcome { complete, failed, stopped };

  Outcome dump(uint16_t type, NetlinkSnapshot& snapshot);
  Outcome readFlags(uint32_t& flags);
  bool drainEvents();
  bool settle();
  void run();
};

RouteMonitor::State::Outcome RouteMonitor::State::dump(uint16_t type, NetlinkSnapshot& snapshot) {
  if (!requests.valid()) requests = openRouteSocket(0);
  if (!requests.valid()) return Outcome::failed;
  struct {
    nlmsghdr header;
    rtmsg body;  // the kernel reads only the family from it for both dumps
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++sequence;
  request.body.rtm_family = AF_UNSPEC;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(requests.get(), &request, sizeof request, 0,
               reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) < 0) {
    requests.reset();
    return Outcome::failed;
  }
  const auto deadline = Clock::now() + kDumpTimeout;
  for (;;) {
    const Wait wait = waitReadable(requests.get(), stop.get(), deadline);
    if (wait == Wait::stopped) return Outcome::stopped;
    DumpStatus status = DumpStatus::failed;
    if (wait == Wait::readable) {
      const Datagram datagram = receive(requests.get(), buffer);
      if (datagram.size < 0 && datagram.error == EAGAIN) continue;
      if (datagram.size < 0 || datagram.truncated) {
        status = DumpStatus::failed;
      } else if (!datagram.fromKernel) {
        continue;
      } else {
        status = consumeDumpReply(buffer.data(), static_cast<size_t>(datagram.size),
                                  request.header.nlmsg_seq, snapshot);
      }
    }
    if (status == DumpStatus::done) return Outcome::complete;
    if (status == DumpStatus::failed) {
      requests.reset();  // the rest of this dump may still be queued on it
      return Outcome::failed;
    }
  }
}

RouteMonitor::State::Outcome RouteMonitor::State::readFlags(uint32_t& flags) {
  NetlinkSnapshot snapshot;
  for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
    snapshot = NetlinkSnapshot{};
    for (const uint16_t type : {uint16_t{RTM_GETLINK}, uint16_t{RTM_GETROUTE}}) {
      const Outcome outcome = dump(type, snapshot);
      if (outcome != Outcome::complete) return outcome;
    }
    if (!snapshot.interrupted) break;
  }
  // Only the interfaces that carry a default route need the (slower) sysfs look-up.
  std::set<int> examined;
  for (const DefaultRoute& route : snapshot.routes) {
    const auto link = snapshot.links.find(route.outputInterface);
    if (link == snapshot.links.end() || !link->second.up) continue;
    if (examined.insert(link->first).second) {
      link->second.wwan = isWwanInterface(link->second.name, link->first);
    }
  }
  flags = reachabilityFlagsFor(snapshot.routes, snapshot.links);
  return Outcome::complete;
}

bool RouteMonitor::State::drainEvents() {
  bool changed = false;
  for (int reads = 0; reads < kMaxDrainReads; ++reads) {
    const Datagram datagram = receive(events.get(), buffer);
    if (datagram.size < 0) {
      if (datagram.error == EAGAIN || datagram.error == EWOULDBLOCK) break;
      // ENOBUFS: the kernel dropped notifications because we fell behind; what they said is
      // lost, so the tables must be read again. Any other error is treated the same way.
      changed = true;
      if (datagram.error != ENOBUFS) break;
      continue;
    }
    if (!datagram.fromKernel) continue;
    if (datagram.truncated ||
        notificationIsRelevant(buffer.data(), static_cast<size_t>(datagram.size))) {
      changed = true;
    }
  }
  return changed;
}

bool RouteMonitor::State::settle() {
  const auto limit = Clock::now() + kMaxSettle;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
    if (left.count() <= 0) return true;
    pollfd fds[2] = {{events.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    const int ready = ::poll(fds, 2, static_cast<int>(std::min(left, kQuietPeriod).count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return true;
    if (fds[1].revents != 0) return false;
    drainEvents();
  }
}

void RouteMonitor::State::run() {
  bool retryPending = false;
  for (;;) {
    pollfd fds[2] = {{events.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    const int ready = ::poll(fds, 2, retryPending ? kRetryMilliseconds : -1);
    if (ready < 0 && errno == EINTR) continue;
    // poll fails otherwise only for invalid arguments or lack of kernel memory; retrying at once
    // would spin, so the monitor ends and the last reported flags stay.
    if (ready < 0 || fds[1].revents != 0) return;
    bool changed = retryPending;
    if (fds[0].revents != 0) changed = drainEvents() || changed;
    if (!changed) continue;
    if (!settle()) return;
    uint32_t flags = 0;
    const Outcome outcome = readFlags(flags);
    if (outcome == Outcome::stopped) return;
    retryPending = outcome == Outcome::failed;
    // Most link and route traffic (bridges, veths, containers, router advertisements) leaves the
    // reachability as it was; the callback hears only real changes, as a platform reachability
    // service would, so such traffic never asks the requester for a batch.
    if (outcome == Outcome::complete && flags != lastReported) {
      lastReported = flags;
      runGuarded([this, flags] { onChange(flags); });
    }
  }
}

std::unique_ptr<RouteMonitor> RouteMonitor::start(Callback onChange) {
  try {
    auto state = std::make_unique<State>();
    state->onChange = std::move(onChange);
    // Subscribe before the first read: a change racing with it is then queued as a
    // notification and leads to a recomputation once the thread runs.
    state->events = openRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE);
    state->stop = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state->events.valid() || !state->stop.valid()) return nullptr;
    uint32_t flags = 0;
    if (state->readFlags(flags) != State::Outcome::complete) return nullptr;
    state->lastReported = flags;
    std::unique_ptr<RouteMonitor> monitor(new RouteMonitor(std::move(state), flags));
    monitor->thread_ = std::thread([shared = monitor->state_] {
      // Linux limits thread names to 15 characters.
      pthread_setname_np(pthread_self(), "VNTRReachabilit");
      shared->run();
    });
    return monitor;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return nullptr;  // out of memory or threads: the caller runs without a monitor
  }
}

RouteMonitor::RouteMonitor(std::unique_ptr<State> state, uint32_t initialFlags)
    : state_(std::move(state)), initialFlags_(initialFlags) {}

RouteMonitor::~RouteMonitor() {
  const uint64_t one = 1;
  // An eventfd write of 1 only fails when the counter is about to overflow, i.e. already set.
  [[maybe_unused]] const ssize_t written = ::write(state_->stop.get(), &one, sizeof one);
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // destroyed from our own callback; the thread holds the state and ends
  } else {
    thread_.join();
  }
}

bool isWwanInterface(const std::string& name, int index, const std::string& sysfsNetRoot) {
  if (nameDeclaresWwan(name)) return true;
  if (!isPlausibleInterfaceName(name)) return false;
  const std::optional<std::string> uevent =
      readSmallFile(joinPath(joinPath(sysfsNetRoot, name), "uevent"));
  return uevent && ueventDeclaresWwan(*uevent, index);
}

}  // namespace vntr
