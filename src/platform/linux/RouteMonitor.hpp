#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/linux/RouteDecision.hpp"

namespace vntr {

/// Watches the kernel's links and routes over rtnetlink and reports reachability flags
/// (see reachabilityFlagsFor) whenever they change.
///
/// One thread, named "VNTRReachability" (cut to the 15 characters Linux allows), waits on the
/// multicast socket. A wake-up drains every pending notification and keeps draining until they
/// pause for a few milliseconds (at most 200 ms), so a burst of changes (or a socket overflow,
/// which loses them) costs one recomputation from a fresh dump on a separate request socket;
/// memory stays bounded by one receive buffer per socket. The callback
/// runs on that thread after a burst that changed the flags (compared with the last report, or
/// with the initial read), never for one that left them as they were; what it throws is caught
/// and logged. A dump that fails is retried a second later.
///
/// The sockets and buffers are confined to the monitor thread once start() has returned.
class RouteMonitor {
 public:
  using Callback = std::function<void(uint32_t flags)>;

  /// Opens the netlink sockets, reads the current state synchronously and starts the thread.
  /// Returns nullptr, logging nothing, when a socket cannot be opened or the first read fails;
  /// the caller then runs without a monitor. `onChange` is not called for the initial state.
  static std::unique_ptr<RouteMonitor> start(Callback onChange);

  /// The flags read synchronously in start().
  uint32_t initialFlags() const { return initialFlags_; }

  /// Stops the thread (through an eventfd) and joins it. When called from the callback itself,
  /// the thread cannot be joined: it is left to finish that callback and end on its own.
  ~RouteMonitor();
  RouteMonitor(const RouteMonitor&) = delete;
  RouteMonitor& operator=(const RouteMonitor&) = delete;

 private:
  struct State;
  RouteMonitor(std::unique_ptr<State> state, uint32_t initialFlags);

  std::shared_ptr<State>
      state_;  // shared with the thread, which may outlive us (see ~RouteMonitor)
  uint32_t initialFlags_;
  std::thread thread_;
};

/// True when the interface `name` with kernel index `index` is a WWAN device: its name begins
/// with "wwan", or `sysfsNetRoot`/<name>/uevent says DEVTYPE=wwan. The sysfs entry only counts
/// when its IFINDEX line still names `index`, so an interface that vanished or was renamed
/// meanwhile (or a sysfs mounted for another network namespace) reads as not WWAN.
bool isWwanInterface(const std::string& name, int index,
                     const std::string& sysfsNetRoot = "/sys/class/net");

}  // namespace vntr
