#pragma once

#include <chrono>
#include <functional>
#include <vntr/Export.hpp>

namespace vntr {

/// A serial queue of work. The library runs its main-queue work (log delivery, batch timer,
/// batch cycle) on one of these; a host with its own event loop may install an adapter before
/// the library is first used (see VNTRTagManager::setMainQueue).
///
/// Implementations must run tasks one at a time, in submission order for `post`, and may be
/// called from any thread.
class VNTR_API Executor {
 public:
  using Task = std::function<void()>;

  virtual ~Executor() = default;
  /// Runs `task` later, never inside this call.
  virtual void post(Task task) = 0;
  /// Runs `task` once `delay` has passed, never inside this call.
  virtual void postAfter(std::chrono::nanoseconds delay, Task task) = 0;
  /// Runs `task` on this queue and waits for it; runs it inline when already on this queue.
  virtual void performAndWait(const Task& task) = 0;
  /// True when the calling thread is currently running a task of this queue.
  virtual bool isCurrent() const = 0;
};

}  // namespace vntr
