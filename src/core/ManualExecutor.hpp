#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vntr/Executor.hpp>

#include "core/Clock.hpp"

namespace vntr {

/// A serial queue that runs nothing by itself: the owner steps it with `runUntilIdle()` and
/// `advanceBy()`, which run due tasks in order on the calling thread and move the fake clock.
/// Tasks may be posted from any thread; `performAndWait` runs inline on the calling thread, so
/// it suits queues stepped by a single test thread.
class ManualExecutor final : public Executor {
 public:
  explicit ManualExecutor(std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>())
      : clock_(std::move(clock)) {}

  void post(Task task) override { postAfter(std::chrono::nanoseconds{0}, std::move(task)); }
  void postAfter(std::chrono::nanoseconds delay, Task task) override;
  void performAndWait(const Task& task) override;
  bool isCurrent() const override;

  /// Runs every task that is due now, including tasks they post for now. Returns how many ran.
  size_t runUntilIdle();
  /// Moves the clock forward, running each task when its time comes, in time order.
  size_t advanceBy(std::chrono::nanoseconds delta);
  /// Tasks waiting, due or not.
  size_t pending() const;
  /// Time until the earliest waiting task, if any.
  std::optional<std::chrono::nanoseconds> nextDelay() const;

  FakeClock& clock() { return *clock_; }
  std::shared_ptr<FakeClock> sharedClock() const { return clock_; }

 private:
  bool runOneDue(Clock::time_point limit);

  std::shared_ptr<FakeClock> clock_;
  mutable std::mutex mutex_;
  // Ordered by due time, then by submission, so equal deadlines keep their order.
  std::map<std::pair<Clock::time_point, uint64_t>, Task> tasks_;  // guarded by mutex_
  uint64_t sequence_ = 0;                                         // guarded by mutex_
  std::atomic<std::thread::id> runner_{};
};

}  // namespace vntr
