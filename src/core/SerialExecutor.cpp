#include "core/SerialExecutor.hpp"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <exception>
#include <future>

#include "core/ForkGate.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {

struct SerialExecutor::State {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  std::atomic<std::thread::id> runner{};
};

void runGuarded(const Executor::Task& task) noexcept {
  try {
    task();
  } catch (const std::exception& e) {
    Debug(VantrelLogLevel::error,
          std::string("Unexpected exception on a library thread: ") + e.what());
  } catch (...) {
    Debug(VantrelLogLevel::error, "Unexpected exception on a library thread");
  }
}

SerialExecutor::SerialExecutor(std::string threadName) : state_(std::make_unique<State>()) {
  thread_ = std::thread([state = state_.get(), name = std::move(threadName)] {
    // Linux limits thread names to 15 characters.
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    state->runner.store(std::this_thread::get_id());
    for (;;) {
      try {
        state->context.run();
        return;
      } catch (...) {
        // runGuarded catches task exceptions; anything else is Asio's own and is survived.
      }
    }
  });
}

SerialExecutor::~SerialExecutor() {
  state_->guard.reset();
  state_->context.stop();
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();  // destroyed from its own task; cannot join itself
    } else {
      thread_.join();
    }
  }
}

void SerialExecutor::post(Task task) {
  asio::post(state_->context, [task = std::move(task)] {
    const forkgate::Task gate;
    runGuarded(task);
  });
}

void SerialExecutor::postAfter(std::chrono::nanoseconds delay, Task task) {
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
  std::promise<void> done;
  auto finished = done.get_future();
  asio::post(state_->context, [&] {
    const forkgate::Task gate;
    try {
      task();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

bool SerialExecutor::isCurrent() const {
  return state_->runner.load() == std::this_thread::get_id();
}

}  // namespace vntr
