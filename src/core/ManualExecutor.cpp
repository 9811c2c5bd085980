#include "core/ManualExecutor.hpp"

#include "core/SerialExecutor.hpp"

namespace vntr {

void ManualExecutor::postAfter(std::chrono::nanoseconds delay, Task task) {
  const auto due = clock_->now() + std::chrono::duration_cast<Clock::time_point::duration>(delay);
  std::scoped_lock lock(mutex_);
  tasks_.emplace(std::make_pair(due, sequence_++), std::move(task));
}

void ManualExecutor::performAndWait(const Task& task) {
  const auto previous = runner_.exchange(std::this_thread::get_id());
  task();
  runner_.store(previous);
}

bool ManualExecutor::isCurrent() const { return runner_.load() == std::this_thread::get_id(); }

bool ManualExecutor::runOneDue(Clock::time_point limit) {
  Task task;
  Clock::time_point due;
  {
    std::scoped_lock lock(mutex_);
    if (tasks_.empty() || tasks_.begin()->first.first > limit) return false;
    due = tasks_.begin()->first.first;
    task = std::move(tasks_.begin()->second);
    tasks_.erase(tasks_.begin());
  }
  if (due > clock_->now()) clock_->set(due);
  const auto previous = runner_.exchange(std::this_thread::get_id());
  runGuarded(task);
  runner_.store(previous);
  return true;
}

size_t ManualExecutor::runUntilIdle() {
  size_t ran = 0;
  while (runOneDue(clock_->now())) ++ran;
  return ran;
}

size_t ManualExecutor::advanceBy(std::chrono::nanoseconds delta) {
  const auto end = clock_->now() + std::chrono::duration_cast<Clock::time_point::duration>(delta);
  size_t ran = 0;
  while (runOneDue(end)) ++ran;
  if (clock_->now() < end) clock_->set(end);
  return ran;
}

size_t ManualExecutor::pending() const {
  std::scoped_lock lock(mutex_);
  return tasks_.size();
}

std::optional<std::chrono::nanoseconds> ManualExecutor::nextDelay() const {
  std::scoped_lock lock(mutex_);
  if (tasks_.empty()) return std::nullopt;
  return tasks_.begin()->first.first - clock_->now();
}

}  // namespace vntr
