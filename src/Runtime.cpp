#include "Runtime.hpp"

#include <vntr/VNTRTagManager.hpp>

#include "core/MainQueue.hpp"

namespace vntr {

Runtime& Runtime::shared() {
  static auto* const runtime = new Runtime(RuntimeOptions{});  // never destroyed
  return *runtime;
}

namespace {
std::shared_ptr<Executor> processMainQueue() {
  // The process main queue is never destroyed; the shared_ptr only borrows it.
  return std::shared_ptr<Executor>(&mainQueue(), [](Executor*) {});
}
}  // namespace

Runtime::Runtime(RuntimeOptions options)
    : mainQueue_(options.mainQueue ? std::move(options.mainQueue) : processMainQueue()),
      clock_(options.clock ? std::move(options.clock) : std::make_shared<SystemClock>()) {}

Runtime::~Runtime() = default;

VNTRTagManager& Runtime::tagManager() {
  std::call_once(tagManagerOnce_, [this] { tagManager_ = std::make_unique<VNTRTagManager>(*this); });
  return *tagManager_;
}

}  // namespace vntr
