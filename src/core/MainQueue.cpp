#include "core/MainQueue.hpp"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "core/SerialExecutor.hpp"

namespace vntr {
namespace {

struct MainQueueSlot {
  std::mutex mutex;
  std::shared_ptr<Executor> installed;     // guarded by mutex
  std::atomic<Executor*> active{nullptr};  // set under mutex; reset by a fork's child
  bool ours = false;                       // guarded by mutex: the library made `installed`
  std::vector<std::shared_ptr<Executor>> leftBehind;  // a forked child's parents' queues
};

MainQueueSlot& slot() {
  static auto* const instance = [] {
    auto* s = new MainQueueSlot;  // never destroyed: threads outlive exit
    // A forked child has no thread behind the library's own queue: it gets a new one at its
    // next use and the old one is left as it is (destroying it would join a missing thread).
    // A queue the host installed is the host's to carry across.
    pthread_atfork([] { slot().mutex.lock(); }, [] { slot().mutex.unlock(); },
                   [] {
                     auto& self = slot();
                     if (self.ours) {
                       self.leftBehind.push_back(std::move(self.installed));
                       self.active.store(nullptr);
                       self.ours = false;
                     }
                     self.mutex.unlock();
                   });
    return s;
  }();
  return *instance;
}

}  // namespace

Executor& mainQueue() {
  auto& s = slot();
  if (auto* queue = s.active.load(std::memory_order_acquire)) return *queue;
  std::scoped_lock lock(s.mutex);
  if (!s.installed) {
    s.installed = std::make_shared<SerialExecutor>("VNTRMain");
    s.ours = true;
  }
  // The slot is never destroyed, so its reference keeps the queue alive past every thread.
  s.active.store(s.installed.get(), std::memory_order_release);
  return *s.installed;
}

bool installMainQueue(std::shared_ptr<Executor> executor) {
  if (!executor) return false;
  auto& s = slot();
  std::scoped_lock lock(s.mutex);
  if (s.active.load() != nullptr) return false;
  s.installed = std::move(executor);
  return true;
}

}  // namespace vntr
