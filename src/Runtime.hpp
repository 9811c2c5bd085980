#pragma once

#include <vntr/Executor.hpp>

#include <memory>
#include <mutex>

#include "core/Clock.hpp"

namespace vntr {

class VNTRTagManager;

/// What a runtime is built from. Empty members take the process defaults.
struct RuntimeOptions {
  std::shared_ptr<Executor> mainQueue;  // default: the process main queue
  std::shared_ptr<const Clock> clock;   // default: the system clock
};

/// The composition root: owns one of each component and wires them together. Components are
/// created on first use, like the process-wide instances they stand for. The process-wide
/// runtime (`shared()`) is never destroyed; tests build their own over temporary directories,
/// fake clocks and manual executors.
class Runtime {
 public:
  static Runtime& shared();

  explicit Runtime(RuntimeOptions options);
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  Executor& mainQueue() { return *mainQueue_; }
  const Clock& clock() const { return *clock_; }

  VNTRTagManager& tagManager();

 private:
  std::shared_ptr<Executor> mainQueue_;
  std::shared_ptr<const Clock> clock_;

  std::once_flag tagManagerOnce_;
  std::unique_ptr<VNTRTagManager> tagManager_;
};

}  // namespace vntr
