// The runtime's lifecycle: flush, shutdown and the exit hook.
#include <cxxabi.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "Runtime.hpp"
#include "core/HostCallbacks.hpp"
#include "core/MainQueue.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "store/EventDataManager.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using SteadyClock = std::chrono::steady_clock;

// While flushing, the queue is counted again after every batch, and at least this often: a batch
// of another process sharing the file may empty it too.
constexpr auto kRecountInterval = std::chrono::milliseconds(250);
// How long exit and shutdown wait for host callbacks already running to return.
constexpr auto kCallbackStopTimeout = std::chrono::seconds(1);

// Runs `task` on `queue` and waits for it until `deadline`; true when it ran.
bool runOnQueueUntil(Executor& queue, SteadyClock::time_point deadline, Executor::Task task) {
  if (auto* serial = dynamic_cast<SerialExecutor*>(&queue)) {
    return serial->performAndWaitUntil(deadline, std::move(task));
  }
  if (queue.isCurrent()) {
    runGuarded(task);
    return true;
  }
  // A host's executor: post, and wait only as long as allowed.
  struct Done {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
  };
  auto done = std::make_shared<Done>();
  queue.post([done, task = std::move(task)] {
    runGuarded(task);
    {
      std::scoped_lock lock(done->mutex);
      done->done = true;
    }
    done->changed.notify_all();
  });
  std::unique_lock lock(done->mutex);
  return done->changed.wait_until(lock, deadline, [&] { return done->done; });
}

}  // namespace

void Runtime::noteBatchEnded() {
  {
    std::scoped_lock lock(batchMutex_);
    ++batchesEnded_;
  }
  batchEnded_.notify_all();
}

bool Runtime::waitUntilStored(SteadyClock::time_point deadline, int64_t& count) {
  auto& events = store();
  // Shared with the task, which may still run after a wait that timed out.
  auto counted = std::make_shared<std::atomic<int64_t>>(-1);
  // The last batch's deletes may still wait for their commit (made behind the next timer):
  // made here, an empty queue is empty on disk too when flush returns.
  const bool ran = runOnQueueUntil(events.queue(), deadline, [&events, counted] {
    if (events.hasChanges()) events.saveContext();
    counted->store(events.count());
  });
  count = counted->load();
  return ran;
}

Runtime::FlushResult Runtime::flushUntil(SteadyClock::time_point deadline) {
  // The store queue runs every build accepted so far before a task queued now, so a count made
  // there includes them all.
  int64_t count = -1;
  if (!waitUntilStored(deadline, count)) return FlushResult::timedOut;
  if (count == 0) return FlushResult::empty;
  auto& sender = requester();
  uint64_t seen = 0;
  {
    std::scoped_lock lock(batchMutex_);
    seen = batchesEnded_;
  }
  sender.fireNow();
  while (SteadyClock::now() < deadline) {
    {
      std::unique_lock lock(batchMutex_);
      batchEnded_.wait_until(lock, std::min(deadline, SteadyClock::now() + kRecountInterval),
                             [&] { return batchesEnded_ != seen; });
      seen = batchesEnded_;
    }
    if (!waitUntilStored(deadline, count)) return FlushResult::timedOut;
    if (count == 0) return FlushResult::empty;
  }
  return FlushResult::timedOut;
}

Runtime::FlushResult Runtime::flush(std::chrono::milliseconds timeout) {
  if (isShutDown()) {
    Debug(VantrelLogLevel::error, kShutDownLine);
    return FlushResult::shutDown;
  }
  if (::getpid() != ownerPid_.load()) {
    Debug(
        VantrelLogLevel::error,
        "flush was called in a forked child, whose library has no threads: nothing is waited for.");
    return FlushResult::timedOut;
  }
  // From a library thread or a host callback, waiting would hold up the very threads that do the
  // work (or deadlock on them): ask for the batch and let it go on without us.
  if (detail::insideHostCallback() || storeQueue_->isCurrent() || mainQueue_->isCurrent()) {
    requester().fireNow();
    return FlushResult::timedOut;
  }
  return flushUntil(SteadyClock::now() + timeout);
}

Runtime::FlushResult Runtime::shutdown(std::chrono::milliseconds timeout) {
  if (shutDown_.exchange(true)) {
    Debug(VantrelLogLevel::error, kShutDownLine);
    return FlushResult::shutDown;
  }
  const bool onOurThread = detail::insideHostCallback() || storeQueue_->isCurrent() ||
                           mainQueue_->isCurrent() || ::getpid() != ownerPid_.load();
  const auto deadline = SteadyClock::now() + timeout;
  FlushResult result = FlushResult::timedOut;
  if (onOurThread) {
    requester().fireNow();
  } else {
    result = flushUntil(deadline);
  }
  // Not waiting on the threads we may be running on, nor on those that wait for it.
  stopThreads(onOurThread ? SteadyClock::now() : deadline);
  return result;
}

void Runtime::stopThreads(SteadyClock::time_point deadline) {
  auto& callbacks = detail::hostCallbacks();
  // From here on, log lines go to stderr at once: the main queue is about to stop.
  if (processWide_) callbacks.gate->close();
  if (auto* sender = createdRequester_.load()) {
    sender->setHttpClient(nullptr);  // a timer still due finds no transport and does nothing
    sender->batchTimer()->invalidate();
  }
  if (auto* reach = createdReachability_.load()) reach->stopMonitor();
  // A batch in flight ends with the shut-down error; its requests stay stored.
  if (network_) network_->stop(deadline);
  // A host's own queues are the host's to stop. What is still queued on ours runs when someone
  // waits on them (the exit hook does).
  if (auto* serial = dynamic_cast<SerialExecutor*>(storeQueue_.get())) serial->stop();
  if (!processWide_) return;
  if (auto* serial = dynamic_cast<SerialExecutor*>(mainQueue_.get())) serial->stop();
  if (callbacks.stop(std::max(deadline, SteadyClock::now() + kCallbackStopTimeout))) {
    callbacks.release();
  } else {
    Debug(VantrelLogLevel::warning,
          "A host callback was still running at shutdown; it is not called again.");
  }
}

void Runtime::finishAtExit() {
  // A forked child's threads are not these: there is nothing of its own to wait for.
  if (::getpid() != ownerPid_.load()) return;
  try {
    auto& callbacks = detail::hostCallbacks();
    // The host's callbacks may use what exit is destroying; only a host that asked is called.
    if (!callbacks.callbacksAtExit.load() || isShutDown()) callbacks.gate->close();
    if (auto* events = createdStore_.load()) {
      auto unsaved = std::make_shared<std::atomic<bool>>(false);
      const bool ran = runOnQueueUntil(events->queue(), SteadyClock::now() + kExitCommitTimeout,
                                       [events, unsaved] {
                                         // Answers whose deletes wait for their commit too.
                                         if (events->hasChanges()) events->saveContext();
                                         unsaved->store(events->hasChanges());
                                       });
      if (!ran) {
        Debug(VantrelLogLevel::error, "Stopped waiting for the event store at exit after " +
                                          std::to_string(kExitCommitTimeout.count()) +
                                          " s: requests not yet saved are lost.");
      } else if (unsaved->load()) {
        Debug(VantrelLogLevel::error,
              "The event store could not save before exit: requests not yet saved are lost.");
      }
    }
    callbacks.stop(SteadyClock::now() + kCallbackStopTimeout);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // Out of memory while exiting: nothing better to do than to let exit go on.
  }
}

}  // namespace vntr
