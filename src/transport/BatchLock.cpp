#include "transport/BatchLock.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_set>

#include "core/VNTRDebug.hpp"

namespace vntr {

/// Every live lock, so a forked child can let go of the descriptors it inherited. The mutex is
/// held across fork() so the child finds the set consistent.
struct BatchLockRegistry {
  std::mutex mutex;
  std::unordered_set<BatchLock*> locks;  // guarded by mutex

  static BatchLockRegistry& instance() {
    static auto* const registry = [] {
      auto* r = new BatchLockRegistry;  // never destroyed: fork handlers reach it at any time
      pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                     [] {
                       auto& self = instance();
                       for (auto* lock : self.locks) lock->abandonInChild();
                       self.mutex.unlock();
                     });
      return r;
    }();
    return *registry;
  }
};

BatchLock::BatchLock(std::string file) : file_(std::move(file)) {
  auto& registry = BatchLockRegistry::instance();
  std::scoped_lock lock(registry.mutex);
  registry.locks.insert(this);
}

BatchLock::~BatchLock() {
  release();
  if (fd_ >= 0) ::close(fd_);
  auto& registry = BatchLockRegistry::instance();
  std::scoped_lock lock(registry.mutex);
  registry.locks.erase(this);
}

bool BatchLock::tryAcquire() {
  std::scoped_lock lock(mutex_);
  if (held_) return true;
  // Opened once and kept: a batch then costs one flock call each way, not an open and a close.
  if (fd_ < 0) fd_ = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd_ < 0) {
    Debug(VantrelLogLevel::warning, "Unable to open the batch lock " + file_ + ": " +
                                        std::strerror(errno) + "; sending without it");
    return true;
  }
  int result = 0;
  do {
    result = ::flock(fd_, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) {
    held_ = true;
    return true;
  }
  const int error = errno;
  if (error == EWOULDBLOCK) {
    Debug(VantrelLogLevel::verbose, "Another process is sending this queue; retrying later");
    return false;
  }
  Debug(VantrelLogLevel::warning, "Unable to take the batch lock " + file_ + ": " +
                                      std::strerror(error) + "; sending without it");
  return true;
}

void BatchLock::release() {
  std::scoped_lock lock(mutex_);
  if (!held_) return;
  ::flock(fd_, LOCK_UN);
  held_ = false;
}

void BatchLock::abandonInChild() {
  // Only the forking thread exists here. Closing a shared description does not unlock it; an
  // explicit LOCK_UN would end the parent's batch too.
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  held_ = false;
}

}  // namespace vntr
