#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vntr/Executor.hpp>

namespace vntr {

/// A serial queue on one named library thread, built on an Asio io_context with steady timers.
///
/// Every task runs inside a guard that catches and logs anything it throws, so a host callback
/// that throws never takes the thread down. A host may still end the thread (a forced unwind:
/// thread cancellation, or an interpreter that ends foreign threads calling into it while it
/// exits), and `stop` ends it on purpose. Without its thread the queue is not dead: whoever waits
/// on it (`performAndWait`, `performAndWaitUntil`) runs the queued tasks itself, one caller at a
/// time, so waiting never hangs and nothing queued is lost. Destroying the executor stops the
/// thread after the task in progress; tasks not yet run are dropped. Process-wide instances are
/// never destroyed. The thread is made by the first task queued, so a queue nobody uses costs no
/// thread, and whoever makes the executor does not pay for one.
class SerialExecutor final : public Executor {
 public:
  explicit SerialExecutor(std::string threadName);
  ~SerialExecutor() override;
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;

  void post(Task task) override;
  void postAfter(std::chrono::nanoseconds delay, Task task) override;
  void performAndWait(const Task& task) override;
  bool isCurrent() const override;

  /// Runs `task` on the queue and waits for it until `deadline`; true when it ran. What it
  /// throws is caught and logged. Any thread; inline when already on the queue.
  bool performAndWaitUntil(std::chrono::steady_clock::time_point deadline, Task task);
  /// Lets the thread end after the task in progress and reaps it, waiting up to kStopJoinWait
  /// (not at all from the queue's own thread). Tasks queued from then on run only when someone
  /// waits on the queue.
  void stop();
  static constexpr std::chrono::milliseconds kStopJoinWait{1000};

 private:
  struct State;
  struct Waiter;
  void startThread();
  static void run(State& state, const std::string& name);
  static void noteThreadEnded(State& state);
  bool waitFor(Waiter& waiter, std::chrono::steady_clock::time_point deadline);
  void runOrphanedTasks();

  std::shared_ptr<State> state_;
  const std::string threadName_;
  // Decides once whether the thread is made: at the first task, or never once stopped.
  std::once_flag threadStarted_;
  std::thread thread_;  // written only under threadStarted_
};

/// Puts the calling library thread in the batch scheduling class (see SerialExecutor.cpp).
void runInBackground();

/// Runs `task`, catching and logging whatever it throws, except a forced unwind (the host ending
/// the thread), which goes on. Used by every library thread.
void runGuarded(const Executor::Task& task);

}  // namespace vntr
