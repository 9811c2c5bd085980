#include "core/SerialExecutor.hpp"

#include <cxxabi.h>
#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <exception>
#include <mutex>

#include "core/ForkGate.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {

struct SerialExecutor::State {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  std::atomic<std::thread::id> runner{};
  std::mutex mutex;
  std::condition_variable changed;  // a waited-for task finished, or the thread ended
  bool threadEnded = false;         // guarded by mutex
  std::mutex orphanMutex;           // one caller at a time runs the tasks of an ended thread
};

// One performAndWait: set when its task has finished, on whichever thread ran it.
struct SerialExecutor::Waiter {
  bool done = false;  // guarded by State::mutex
  std::exception_ptr error;
};

void runInBackground() {
  // A batch thread never preempts a thread it wakes: work handed to a library thread waits for
  // the host's thread to give up the CPU rather than taking it from the call that handed it over.
  // It still gets its fair share of the CPU.
  const sched_param none{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

void runGuarded(const Executor::Task& task) {
  try {
    task();
  } catch (abi::__forced_unwind&) {
    throw;  // the host is ending this thread; swallowing it would abort the process
  } catch (const std::exception& e) {
    Debug(VantrelLogLevel::error,
          std::string("Unexpected exception on a library thread: ") + e.what());
  } catch (...) {
    Debug(VantrelLogLevel::error, "Unexpected exception on a library thread");
  }
}

SerialExecutor::SerialExecutor(std::string threadName)
    : state_(std::make_shared<State>()), threadName_(std::move(threadName)) {}

void SerialExecutor::startThread() {
  std::call_once(threadStarted_, [this] {
    try {
      thread_ = std::thread([state = state_, name = threadName_] { run(*state, name); });
    } catch (const std::system_error&) {
      noteThreadEnded(*state_);  // waiters run the queue themselves
    }
  });
}

void SerialExecutor::run(State& state, const std::string& name) {
  // Whichever way the thread ends, waiters from now on run the queue themselves.
  struct Ending {
    State& state;
    ~Ending() {
      state.runner.store({});
      noteThreadEnded(state);
    }
  } ending{state};
  // Linux limits thread names to 15 characters.
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
  runInBackground();
  state.runner.store(std::this_thread::get_id());
  for (;;) {
    try {
      state.context.run();
      return;
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // runGuarded catches task exceptions; anything else is Asio's own and is survived.
    }
  }
}

void SerialExecutor::noteThreadEnded(State& state) {
  {
    std::scoped_lock lock(state.mutex);
    state.threadEnded = true;
  }
  state.changed.notify_all();
}

SerialExecutor::~SerialExecutor() {
  stop();
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // destroyed from its own task; cannot join itself
  } else {
    thread_.join();
  }
}

void SerialExecutor::stop() {
  // A queue that never had a thread gets none.
  std::call_once(threadStarted_, [this] { noteThreadEnded(*state_); });
  state_->guard.reset();
  state_->context.stop();
  if (isCurrent()) return;  // stopped from its own task: the thread ends once that task returns
  // Reaped once it has ended, so a stopped thread is not left unjoined for the rest of the
  // process; one blocked in a host callback for longer is left to end by itself.
  std::unique_lock lock(state_->mutex);
  state_->changed.wait_for(lock, kStopJoinWait, [&] { return state_->threadEnded; });
  if (state_->threadEnded && thread_.joinable()) thread_.join();
}

void SerialExecutor::post(Task task) {
  startThread();
  asio::post(state_->context, [task = std::move(task)] {
    const forkgate::Task gate;
    runGuarded(task);
  });
}

void SerialExecutor::postAfter(std::chrono::nanoseconds delay, Task task) {
  startThread();
  auto timer = std::make_shared<asio::steady_timer>(state_->context);
  timer->expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(delay));
  timer->async_wait([timer, task = std::move(task)](const std::error_code& ec) {
    if (ec) return;
    const forkgate::Task gate;
    runGuarded(task);
  });
}

void SerialExecutor::performAndWait(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  startThread();
  auto waiter = std::make_shared<Waiter>();
  // `task` is borrowed: this call returns only after the task ran or was dropped with its
  // thread, so the reference never outlives it.
  asio::post(state_->context, [state = state_, waiter, &task] {
    const forkgate::Task gate;
    try {
      task();
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      waiter->error = std::current_exception();
    }
    {
      std::scoped_lock lock(state->mutex);
      waiter->done = true;
    }
    state->changed.notify_all();
  });
  waitFor(*waiter, std::chrono::steady_clock::time_point::max());
  if (waiter->error) std::rethrow_exception(waiter->error);
}

bool SerialExecutor::performAndWaitUntil(std::chrono::steady_clock::time_point deadline,
                                         Task task) {
  if (isCurrent()) {
    runGuarded(task);
    return true;
  }
  startThread();
  auto waiter = std::make_shared<Waiter>();
  asio::post(state_->context, [state = state_, waiter, task = std::move(task)] {
    const forkgate::Task gate;
    runGuarded(task);
    {
      std::scoped_lock lock(state->mutex);
      waiter->done = true;
    }
    state->changed.notify_all();
  });
  return waitFor(*waiter, deadline);
}

bool SerialExecutor::waitFor(Waiter& waiter, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(state_->mutex);
  state_->changed.wait_until(lock, deadline, [&] { return waiter.done || state_->threadEnded; });
  if (waiter.done || !state_->threadEnded) return waiter.done;
  lock.unlock();
  // Our task is still queued (or was lost with the thread that ran it): run what is queued.
  runOrphanedTasks();
  lock.lock();
  return waiter.done;
}

void SerialExecutor::runOrphanedTasks() {
  std::scoped_lock orphan(state_->orphanMutex);
  state_->runner.store(std::this_thread::get_id());
  struct Leave {
    State& state;
    ~Leave() { state.runner.store({}); }
  } leave{*state_};
  state_->context.restart();
  state_->context.poll();
}

bool SerialExecutor::isCurrent() const {
  return state_->runner.load() == std::this_thread::get_id();
}

}  // namespace vntr
