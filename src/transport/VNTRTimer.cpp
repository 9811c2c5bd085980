#include "transport/VNTRTimer.hpp"

#include <chrono>
#include <cmath>

namespace vntr {

std::shared_ptr<VNTRTimer> VNTRTimer::make(Executor& queue, double seconds,
                                           std::function<void()> block) {
  auto timer = std::make_shared<VNTRTimer>();
  timer->block_ = std::make_shared<const std::function<void()>>(std::move(block));
  const double delay = std::isfinite(seconds) && seconds > 0 ? seconds : 0.0;
  queue.postAfter(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(delay)),
      [timer] { timer->expire(); });
  return timer;
}

void VNTRTimer::invalidate() {
  std::shared_ptr<const std::function<void()>> released;
  std::scoped_lock lock(mutex_);
  released.swap(block_);  // the block is destroyed outside the lock
}

bool VNTRTimer::isValid() const {
  std::scoped_lock lock(mutex_);
  return block_ != nullptr;
}

void VNTRTimer::expire() {
  std::shared_ptr<const std::function<void()>> block;
  {
    std::scoped_lock lock(mutex_);
    block = block_;  // not cleared: an expired timer stays valid until invalidated
  }
  if (block && *block) (*block)();
}

}  // namespace vntr
