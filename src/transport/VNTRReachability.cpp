#include "transport/VNTRReachability.hpp"

#include "core/VNTRDebug.hpp"
#include "platform/linux/RouteMonitor.hpp"

namespace vntr {

VNTRReachability::VNTRReachability(Source source, uint32_t initialFlags) : source_(source) {
  switch (source) {
    case Source::kernel:
      monitor_ = RouteMonitor::start([this](uint32_t flags) { updateFlags(flags); });
      hasMonitor_ = monitor_ != nullptr;
      // The initial read is stored directly: creating the instance never starts a batch. The
      // monitor's thread already runs; a report it made meanwhile is newer and is kept.
      if (monitor_) {
        std::scoped_lock lock(mutex_);
        if (!updated_) flags_.store(monitor_->initialFlags(), std::memory_order_release);
      }
      break;
    case Source::host:
      hasMonitor_ = true;
      flags_.store(initialFlags, std::memory_order_release);
      break;
    case Source::none:
      break;
  }
}

VNTRReachability::~VNTRReachability() = default;

void VNTRReachability::stopMonitor() { monitor_.reset(); }

void VNTRReachability::setOnReachable(std::function<void()> onReachable) {
  auto hook = std::make_shared<const std::function<void()>>(std::move(onReachable));
  std::scoped_lock lock(mutex_);
  onReachable_.swap(hook);
}

std::string VNTRReachability::connectionType() const {
  if (!hasMonitor_) {
    Debug(VantrelLogLevel::warning, "Reachability is nil and will always return \"unknown\"");
    return "unknown";
  }
  if (!isReachable()) return "none";
  return isOnWWAN() ? "carrier" : "wifi";
}

void VNTRReachability::updateFlags(uint32_t flags) {
  std::shared_ptr<const std::function<void()>> hook;
  {
    std::scoped_lock lock(mutex_);
    flags_.store(flags, std::memory_order_release);
    updated_ = true;
    if ((flags & kReachable) == 0) return;
    hook = onReachable_;
  }
  if (hook && *hook) (*hook)();
}

}  // namespace vntr
