#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vntr/Executor.hpp>

namespace vntr {

/// A serial queue on one named library thread, built on an Asio io_context with steady timers.
///
/// Every task runs inside a guard that catches and logs anything it throws, so a host callback
/// that throws never takes the thread down. Destroying the executor stops the thread after the
/// task in progress; tasks not yet run are dropped. Process-wide instances are never destroyed.
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

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::thread thread_;
};

/// Runs `task`, catching and logging whatever it throws. Used by every library thread.
void runGuarded(const Executor::Task& task) noexcept;

}  // namespace vntr
