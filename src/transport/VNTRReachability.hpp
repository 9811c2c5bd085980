#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace vntr {

class RouteMonitor;

/// Whether the device can reach the network, and how.
///
/// The flags come from the kernel's route monitor on Linux (`Source::kernel`), from the host
/// (`Source::host`: platforms where the kernel is not reachable report flags themselves through
/// `updateFlags`; tests do the same), or from nowhere (`Source::none`, also the outcome when the
/// monitor cannot start): then the device counts as never reachable and `connectionType` is
/// "unknown" with a warning.
///
/// Every reachable update asks the requester for a batch at once (the `onReachable` hook, wired
/// to the requester's fire-now rule); the initial state never does. The kernel monitor reports
/// only changes of the flags, so link and route traffic that leaves them as they were asks for
/// nothing. Flags are a lone atomic:
/// readers on any thread see the last value stored.
class VNTRReachability {
 public:
  static constexpr uint32_t kReachable = 0x2;
  static constexpr uint32_t kIsWWAN = 0x40000;

  enum class Source { kernel, host, none };

  /// `initialFlags` is the starting state for `Source::host`; the kernel source reads its own.
  explicit VNTRReachability(Source source, uint32_t initialFlags = 0);
  ~VNTRReachability();
  VNTRReachability(const VNTRReachability&) = delete;
  VNTRReachability& operator=(const VNTRReachability&) = delete;

  /// Called on every update whose flags carry the reachable bit. Set once, before updates flow.
  void setOnReachable(std::function<void()> onReachable);

  uint32_t reachabilityFlags() const { return flags_.load(std::memory_order_acquire); }
  bool isReachable() const { return (reachabilityFlags() & kReachable) != 0; }
  bool isReachableViaWiFi() const { return isReachable() && !isOnWWAN(); }
  bool isOnWWAN() const { return (reachabilityFlags() & kIsWWAN) != 0; }
  /// "unknown" (no monitor), "none", "wifi" or "carrier".
  std::string connectionType() const;
  /// True when some source reports flags (the monitor started, or the host reports).
  bool hasMonitor() const { return hasMonitor_; }
  Source source() const { return source_; }

  /// Stores `flags`; when they carry the reachable bit, asks for a batch at once.
  void updateFlags(uint32_t flags);
  /// Stops the kernel monitor and waits for a report in progress; no update follows.
  void stopMonitor();

 private:
  std::atomic<uint32_t> flags_{0};
  Source source_;
  bool hasMonitor_ = false;
  mutable std::mutex mutex_;
  std::shared_ptr<const std::function<void()>> onReachable_;  // guarded by mutex_
  bool updated_ = false;  // guarded by mutex_: updateFlags has stored flags
  std::unique_ptr<RouteMonitor> monitor_;
};

}  // namespace vntr
