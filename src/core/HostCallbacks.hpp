#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vntr/VNTRPreferences.hpp>

namespace vntr::detail {

/// Whether host callbacks may still be called, shared by every holder of a set. Once stopped
/// (shutdown, process exit, or a host that unwound one of our threads out of a callback) no
/// callback of the set is called again.
class CallbackGate {
 public:
  bool open() const { return open_.load(std::memory_order_acquire); }
  void close() { open_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> open_{true};
};

/// The host callbacks the calling thread is inside of right now, innermost last. Trivially
/// destructible, so it stays usable while the process exits.
class CallsOnThisThread {
 public:
  void push(const void* installed) {
    if (depth_ < kTracked) calls_[depth_] = installed;
    ++depth_;
  }
  void pop() { --depth_; }
  int depth() const { return depth_; }
  /// How many of the calls in progress on this thread are calls of `installed`.
  int count(const void* installed) const {
    const int tracked = std::min(depth_, kTracked);
    return static_cast<int>(std::count(calls_, calls_ + tracked, installed));
  }

 private:
  static constexpr int kTracked = 16;  // callbacks nested deeper are counted, not told apart
  const void* calls_[kTracked] = {};
  int depth_ = 0;
};

CallsOnThisThread& callsOnThisThread();

/// True once an interpreter hosting us (Python through ctypes or cffi) has begun to shut down.
/// From then on it ends any thread that calls into it and soon frees the code of its callbacks,
/// while the process has not begun to exit yet, so neither the gate nor the exit hook would
/// know. False in every other host.
bool hostInterpreterExiting();

/// One host callback (a log callback or a delegate) and the calls of it in flight.
///
/// `replace` waits until the calls of the callback it replaces have ended, so that once it
/// returns the old callback is neither running nor ever called again and a C host may free what
/// it gave us. Called from inside that very callback it cannot wait for itself: it waits for the
/// calls on other threads only. Any thread.
template <class T>
class HostCallback {
 public:
  HostCallback(std::shared_ptr<T> initial, std::shared_ptr<CallbackGate> gate)
      : gate_(std::move(gate)), installed_(std::make_shared<Installed>(std::move(initial))) {}

  /// The current callback, for reading only: calls go through `invoke`.
  std::shared_ptr<T> current() const {
    std::scoped_lock lock(mutex_);
    return installed_->target;
  }

  /// Runs `call(target)` with the current callback, unless there is none or the gate is closed;
  /// false when nothing was called. What the callback throws reaches the caller. A forced unwind
  /// (the host ending this thread, as an interpreter does at exit) closes the gate first.
  template <class Call>
  bool invoke(Call&& call) {
    std::shared_ptr<Installed> installed;
    if (hostInterpreterExiting()) gate_->close();
    {
      std::scoped_lock lock(mutex_);
      if (!gate_->open() || !installed_->target) return false;
      installed = installed_;
      ++installed->inFlight;
    }
    InFlight guard{*this, installed};
    try {
      call(*installed->target);
    } catch (abi::__forced_unwind&) {
      gate_->close();
      throw;
    }
    return true;
  }

  /// Installs `next` and waits for the previous callback's calls to end.
  void replace(std::shared_ptr<T> next) {
    auto previous = std::make_shared<Installed>(std::move(next));
    std::unique_lock lock(mutex_);
    previous.swap(installed_);
    const int own = ownCalls(previous.get());
    idle_.wait(lock, [&] { return previous->inFlight <= own; });
  }

  /// Waits until no call is in flight (those of the calling thread aside) or `deadline` passes;
  /// false on timeout.
  bool waitIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const int own = ownCalls(installed_.get());
    return idle_.wait_until(lock, deadline, [&] { return installed_->inFlight <= own; });
  }

 private:
  struct Installed {
    explicit Installed(std::shared_ptr<T> t) : target(std::move(t)) {}
    std::shared_ptr<T> target;
    int inFlight = 0;  // guarded by the holder's mutex
  };

  static int ownCalls(const Installed* installed) { return callsOnThisThread().count(installed); }

  struct InFlight {
    HostCallback& holder;
    std::shared_ptr<Installed> installed;
    InFlight(HostCallback& h, std::shared_ptr<Installed> i) : holder(h), installed(std::move(i)) {
      callsOnThisThread().push(installed.get());
    }
    ~InFlight() {
      callsOnThisThread().pop();
      {
        std::scoped_lock lock(holder.mutex_);
        --installed->inFlight;
      }
      holder.idle_.notify_all();
    }
  };

  const std::shared_ptr<CallbackGate> gate_;
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::shared_ptr<Installed> installed_;  // guarded by mutex_; never null
};

/// The callbacks of one preferences object.
struct HostCallbacks {
  explicit HostCallbacks(std::shared_ptr<const VNTRPreferences::LoggingCallback> initialLog);

  const std::shared_ptr<const VNTRPreferences::LoggingCallback> defaultLog;
  std::shared_ptr<CallbackGate> gate = std::make_shared<CallbackGate>();
  HostCallback<const VNTRPreferences::LoggingCallback> log;
  HostCallback<VNTRTagManagerDelegate> delegate{nullptr, gate};
  std::atomic<bool> callbacksAtExit{false};

  /// Closes the gate and waits (up to `deadline`) for the calls in flight to end; false when
  /// some were still running.
  bool stop(std::chrono::steady_clock::time_point deadline);
  /// Drops the host's callbacks (after `stop`), so nothing of the host is kept alive by us.
  void release();
};

/// The callbacks the library calls: those of the shared preferences.
HostCallbacks& hostCallbacks();

/// True while the calling thread runs inside a host callback.
inline bool insideHostCallback() { return callsOnThisThread().depth() > 0; }

}  // namespace vntr::detail
