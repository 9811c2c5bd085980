#pragma once

namespace vntr {

/// Lets fork() find every library thread between two tasks. Each task on a library thread is
/// counted while it runs; before the fork the count is awaited down to zero (up to
/// kForkWaitMilliseconds) and the gate then stays locked through the fork, so no task starts
/// and no thread is inside SQLite or half-way through an update when the child is copied.
/// Tasks are never parked before they start: one task often waits for another (performAndWait),
/// and parking the second would hold the first forever.
namespace forkgate {

/// How long a fork waits for library tasks; a host callback that blocks longer is logged and
/// the fork goes ahead.
inline constexpr int kForkWaitMilliseconds = 1000;

/// Counts one task running on this thread for as long as it lives.
class Task {
 public:
  Task();
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
};

}  // namespace forkgate
}  // namespace vntr
