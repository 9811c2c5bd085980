#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vntr/Executor.hpp>

namespace vntr {

/// A one-shot timer that runs its block once on a queue (the main queue) after a delay.
///
/// It is cancelled by clearing the block, not by withdrawing the scheduled work: an expired
/// timer whose block was cleared does nothing. After the block has run, the timer stays valid
/// until invalidated; the requester relies on that to hold its next batch while offline.
/// `invalidate()` and `isValid()` may be called from any thread.
class VNTRTimer : public std::enable_shared_from_this<VNTRTimer> {
 public:
  /// An idle timer: no block, nothing scheduled.
  VNTRTimer() = default;

  /// Arms a new timer: stores `block` and schedules the expiry on `queue` after `seconds`
  /// (0 means the queue's next turn; never inside this call). The scheduled work keeps the
  /// timer alive until it has run.
  static std::shared_ptr<VNTRTimer> make(Executor& queue, double seconds,
                                         std::function<void()> block);

  /// Clears the block, so a pending expiry does nothing.
  void invalidate();
  /// True while the block is present: armed, or expired and not yet invalidated.
  bool isValid() const;

 private:
  void expire();

  mutable std::mutex mutex_;
  std::shared_ptr<const std::function<void()>> block_;  // guarded by mutex_
};

}  // namespace vntr
