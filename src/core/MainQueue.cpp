#include "core/MainQueue.hpp"

#include <mutex>

#include "core/SerialExecutor.hpp"

namespace vntr {
namespace {

struct MainQueueSlot {
  std::mutex mutex;
  std::shared_ptr<Executor> installed;  // guarded by mutex
  Executor* active = nullptr;           // guarded by mutex, set once
};

MainQueueSlot& slot() {
  static auto* const instance = new MainQueueSlot;  // never destroyed: threads outlive exit
  return *instance;
}

}  // namespace

Executor& mainQueue() {
  // The pointer never changes once set, so after the first call this is one load.
  static Executor* const queue = [] {
    auto& s = slot();
    std::scoped_lock lock(s.mutex);
    if (!s.installed) s.installed = std::make_shared<SerialExecutor>("VNTRMain");
    // The slot is never destroyed, so its reference keeps the queue alive past every thread.
    s.active = s.installed.get();
    return s.active;
  }();
  return *queue;
}

bool installMainQueue(std::shared_ptr<Executor> executor) {
  if (!executor) return false;
  auto& s = slot();
  std::scoped_lock lock(s.mutex);
  if (s.active != nullptr) return false;
  s.installed = std::move(executor);
  return true;
}

}  // namespace vntr
