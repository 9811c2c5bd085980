#pragma once

#include <mutex>
#include <string>

namespace vntr {

/// Lets one process at a time have a batch in flight for a queue file: an exclusive `flock` on
/// a companion file, taken from the dequeue until the reply is handled. The kernel drops it when
/// the holder dies, so a process killed mid-batch never blocks the others.
///
/// The lock belongs to an open file description, which a forked child shares: the child closes
/// its copy without unlocking (the parent's batch keeps its lock) and opens its own next time.
/// Thread-safe; the lock is not tied to the thread that took it.
class BatchLock {
 public:
  /// `file` is created (mode 0600) at the first `tryAcquire`.
  explicit BatchLock(std::string file);
  ~BatchLock();
  BatchLock(const BatchLock&) = delete;
  BatchLock& operator=(const BatchLock&) = delete;

  /// True when this process may send now. False, with a log line, while another process holds
  /// the lock. A file that cannot be opened or locked is logged and lets the batch go: sending
  /// a request twice is better than never sending it.
  bool tryAcquire();
  /// Ends this process's batch; nothing when it holds no lock.
  void release();

 private:
  friend struct BatchLockRegistry;
  void abandonInChild();

  const std::string file_;
  std::mutex mutex_;
  int fd_ = -1;        // guarded by mutex_; the lock file, open from the first tryAcquire
  bool held_ = false;  // guarded by mutex_; this process holds the lock
};

}  // namespace vntr
