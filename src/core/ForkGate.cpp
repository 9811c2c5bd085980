#include "core/ForkGate.hpp"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "core/VNTRDebug.hpp"

namespace vntr::forkgate {
namespace {

struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  int active = 0;           // guarded by mutex: tasks running on library threads
  bool forking = false;     // guarded by mutex: a fork waits for `active` to drop
  bool timedOut = false;    // guarded by mutex: the last fork did not wait for every task
  Gate* parents = nullptr;  // in a forked child, the gate it left behind (kept, never used)
};

thread_local int tasksOnThisThread = 0;

void prepare();
void parent();
void child();

// Never destroyed: fork handlers and library threads reach it at any time. The child gets a
// fresh one, as the old condition variable may still count waiters from threads it lacks.
std::atomic<Gate*> current{nullptr};

Gate& gate() {
  static const bool installed = [] {
    current.store(new Gate, std::memory_order_release);
    pthread_atfork(prepare, parent, child);
    return true;
  }();
  (void)installed;
  return *current.load(std::memory_order_acquire);
}

// Made while the library loads, before any thread of ours exists: a fork that came while a
// library thread was still making the gate would leave the child a half-made one (its guard
// "in progress" for ever, so every task of the child's new threads would wait on it).
[[maybe_unused]] const bool madeAtLoad = (gate(), true);

void prepare() {
  auto& g = gate();
  std::unique_lock lock(g.mutex);
  // A host that forks from inside a library callback is itself one of the running tasks.
  const int own = tasksOnThisThread > 0 ? 1 : 0;
  g.forking = true;
  g.timedOut = !g.changed.wait_for(lock, std::chrono::milliseconds(kForkWaitMilliseconds),
                                   [&] { return g.active <= own; });
  g.forking = false;
  // Held across the fork, so the child finds the gate's own state whole.
  lock.release();
}

void parent() {
  auto& g = gate();
  const bool timedOut = g.timedOut;
  g.timedOut = false;
  g.mutex.unlock();
  if (timedOut) {
    Debug(VantrelLogLevel::warning,
          "fork() went ahead while a library task was still running (a callback that blocks?)");
  }
}

void child() {
  // The old gate stays locked and is left behind. The child has only the thread that forked;
  // it alone may hold the new one.
  auto* fresh = new Gate;
  fresh->parents = current.load();
  fresh->active = tasksOnThisThread;
  current.store(fresh, std::memory_order_release);
}

}  // namespace

Task::Task() {
  auto& g = gate();
  std::scoped_lock lock(g.mutex);
  ++g.active;
  ++tasksOnThisThread;
}

Task::~Task() {
  auto& g = gate();
  bool forking = false;
  {
    std::scoped_lock lock(g.mutex);
    --g.active;
    --tasksOnThisThread;
    forking = g.forking;
  }
  if (forking) g.changed.notify_all();
}

}  // namespace vntr::forkgate
