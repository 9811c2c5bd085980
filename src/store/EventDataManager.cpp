#include "store/EventDataManager.hpp"

#include <algorithm>
#include <atomic>
#include <cassert>

#include "core/Extensions.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManagerImpl.hpp"
#include "store/StoreOpening.hpp"

namespace vntr {
namespace {

using store::Row;

constexpr int64_t kMaxQueuedAtStartup = 10000;
constexpr double kMaxAgeAtStartup = 1209600;  // 14 days
// After a burst of at least this many saves the memory it used is handed back.
constexpr size_t kLargeBurst = 1024;

// SQLite's default point for a checkpoint.
constexpr int kCheckpointPages = 1000;

constexpr const char* kNoStoreDescription = "The event store could not be opened";

std::string describe(const sqlite::Error& error) {
  return "{code = " + std::to_string(error.code) +
         ", extendedCode = " + std::to_string(error.extendedCode) + "}";
}

}  // namespace

void EventDataManager::Impl::open(const std::string& documentsDirectory,
                                  const AttemptFilter& allowed) {
  auto opened = store::openStore(documentsDirectory, allowed);
  db_ = std::move(opened.db);
  kind_.store(opened.kind);
  // Replaces SQLite's automatic checkpoint, which runs inside the commit that fills the log.
  if (db_ && opened.kind != StoreKind::memory) {
    sqlite3_wal_hook(db_->handle(), &Impl::walCommitted, this);
  }
}

int EventDataManager::Impl::walCommitted(void* impl, sqlite3* /*db*/, const char* /*name*/,
                                         int pages) {
  auto* self = static_cast<Impl*>(impl);
  if (pages < kCheckpointPages || self->checkpointQueued_) return SQLITE_OK;
  self->checkpointQueued_ = true;
  self->queue_->post([weak = self->weak_from_this()] {
    if (const auto strong = weak.lock()) strong->checkpoint();
  });
  return SQLITE_OK;
}

void EventDataManager::Impl::checkpoint() {
  checkpointQueued_ = false;
  // Passive: never waits for another connection; what it cannot copy now waits for the next.
  if (db_) {
    sqlite3_wal_checkpoint_v2(db_->handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }
}

void EventDataManager::Impl::close() {
  if (hasChanges()) saveContext();
  db_.reset();
}

void EventDataManager::Impl::startupTrim() {
  const int64_t n = count();
  if (n > kMaxQueuedAtStartup) removeOldest(n - kMaxQueuedAtStartup);
  removeOlderThan(kMaxAgeAtStartup);
}

void EventDataManager::Impl::runBatched(const Executor::Task& task) {
  // Counted down before running, so zero means nothing else of the burst is waiting.
  queuedBatched_.fetch_sub(1, std::memory_order_acq_rel);
  // While a burst lasts, one transaction spans it: the id lookups of its builds then run
  // without taking and dropping the file locks each time, and the save commits it.
  if (db_ && !db_->inTransaction()) db_->begin(/*durable=*/true);
  {
    // Reset however the task ends: a host may end this thread inside a callback of it, and
    // whoever runs the queue after that must find the store outside any burst.
    struct InBurst {
      Impl& impl;
      explicit InBurst(Impl& i) : impl(i) { impl.batching_ = impl.inBurst_ = true; }
      ~InBurst() { impl.batching_ = impl.inBurst_ = false; }
    } inBurst(*this);
    runGuarded(task);
  }
  const bool burstOver = queuedBatched_.load(std::memory_order_acquire) == 0;
  if ((hasChanges() || !afterSave_.empty()) &&
      (burstOver || afterSave_.size() >= EventDataManager::kMaxBatchedSaves)) {
    saveContext();
  }
  // A burst that ends with nothing to save still releases its transaction.
  if (burstOver) {
    endTransaction();
    if (std::exchange(burstSaves_, 0) >= kLargeBurst) releaseMemory();
  }
}

void EventDataManager::Impl::runJoiningSaves(const Executor::Task& task) {
  // Nested in a burst (or in another joining task), the outer one saves or holds.
  if (batching_) {
    task();
    return;
  }
  // One transaction spans the task: a batch answer looks up and deletes each of its requests,
  // which would otherwise take and drop the file locks once per request.
  struct Joining {
    Impl& impl;
    bool began = false;
    explicit Joining(Impl& i) : impl(i) {
      impl.batching_ = true;
      began = impl.db_ && !impl.db_->inTransaction() && impl.db_->begin(/*durable=*/false);
    }
    ~Joining() {
      impl.batching_ = false;
      if (began) impl.endTransaction();
    }
  } joining(*this);
  task();
}

void EventDataManager::Impl::saveContext() {
  assertOnQueue();
  if (hasChanges()) {
    if (!db_) {
      // Without a database nothing can be kept; report the loss once and let it go.
      changes_.forgetDropped();
      Debug(VantrelLogLevel::error, std::string("Saving event queue failed with: ") +
                                        kNoStoreDescription + ", " +
                                        "{code = 0, extendedCode = 0}");
    } else if (sqlite::Error error; !changes_.commit(*db_, error)) {
      Debug(VantrelLogLevel::error,
            "Saving event queue failed with: " + error.message + ", " + describe(error));
    }
  }
  reportOverflow();
  if (afterSave_.empty()) return;
  auto callbacks = std::move(afterSave_);
  afterSave_.clear();
  for (const auto& callback : callbacks) runGuarded(callback);
}

void EventDataManager::Impl::saveContextThen(Executor::Task afterSave) {
  afterSave_.push_back(std::move(afterSave));
  if (inBurst_) ++burstSaves_;
  // A joined commit is bounded even inside one task that saves many times.
  if (batching_ && afterSave_.size() < EventDataManager::kMaxBatchedSaves) return;
  saveContext();
  // The builds still to come in this burst keep looking ids up; without an open transaction
  // every lookup would take and drop the file locks again.
  if (inBurst_ && db_ && !db_->inTransaction()) db_->begin(/*durable=*/true);
}

int64_t EventDataManager::Impl::insert(std::string id, std::string jsonData, double timeStamp,
                                       std::shared_ptr<const store::RequestWriter> writer) {
  assertOnQueue();
  if (!db_) {
    changes_.noteDropped();
    return -1;
  }
  const int64_t pk = nextProvisionalKey_++;
  changes_.insert(Row{pk, std::move(id), std::move(jsonData), timeStamp, std::move(writer)});
  return pk;
}

void EventDataManager::Impl::reportOverflow() {
  if (const size_t dropped = changes_.takeOverflowed(); dropped > 0) {
    Debug(VantrelLogLevel::error, "Event queue cannot be saved and holds " +
                                      std::to_string(store::UnitOfWork::kMaxPendingInserts) +
                                      " unsaved requests: dropped the " + std::to_string(dropped) +
                                      " oldest");
  }
}

void EventDataManager::Impl::remove(int64_t pk, const std::string& id) {
  assertOnQueue();
  if (changes_.dropInsert(pk)) return;
  if (!db_) return;
  if (store::isProvisional(pk)) {
    // Handed out before its save: the save gave it a row id, found by its request id (unique
    // for every request that can be answered after a save).
    if (id == nilID) return;
    bool failed = false;
    const auto saved = savedPk(id, failed);
    if (!saved) return;
    pk = *saved;
  }
  if (changes_.isDeleted(pk)) return;
  // Inside a transaction (a batch's answers, a burst) the commit follows within the same task,
  // with nothing counting the queue in between: the delete is only noted, and the commit
  // deletes them all in a few statements.
  if (db_->inTransaction()) {
    changes_.markDeleted(pk);
    return;
  }
  auto exists = db_->statement(store::kExists);
  exists.bind(1, pk);
  if (exists.step() == sqlite::Statement::Step::row) changes_.markDeleted(pk);
}

void EventDataManager::Impl::abandonAfterFork() {
  // The child's only thread runs this; the store thread stayed in the parent. SQLite keeps one
  // record of locks per file and process, so a connection left open here would make the
  // child's new one believe it holds the parent's locks, and another process could then
  // delete the write-ahead log under it. Closed without the checkpoint SQLite runs when the
  // last connection closes, it leaves the parent's files alone.
  if (db_) {
    sqlite3_db_config(db_->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    db_.reset();
  }
  // Unsaved builds belong to the parent, which stores them.
  changes_ = store::UnitOfWork{};
  afterSave_.clear();
}

// --- EventDataManager ---

EventDataManager::EventDataManager(std::string documentsDirectory, std::shared_ptr<Executor> queue,
                                   std::shared_ptr<const Clock> clock, AttemptFilter attemptFilter)
    : impl_(std::make_shared<Impl>(std::move(queue), std::move(clock))) {
  // Opening runs SQLite's quick_check over the whole file and the trim may delete thousands of
  // rows: both belong on the store queue, not on the thread of the host's first call. Every
  // task queued after this one finds the store open.
  impl_->queue().post([weak = std::weak_ptr<Impl>(impl_), directory = std::move(documentsDirectory),
                       filter = std::move(attemptFilter)] {
    if (const auto impl = weak.lock()) {
      impl->open(directory, filter);
      impl->startupTrim();
    }
  });
}

EventDataManager::~EventDataManager() {
  auto impl = impl_;
  impl->queue().performAndWait([&impl] { impl->close(); });
}

Executor& EventDataManager::queue() { return impl_->queue(); }

void EventDataManager::perform(Executor::Task task) { impl_->queue().post(std::move(task)); }

void EventDataManager::performAndWait(const Executor::Task& task) {
  impl_->queue().performAndWait(task);
}

void EventDataManager::performBatched(Executor::Task task) {
  impl_->queuedBatched().fetch_add(1, std::memory_order_acq_rel);
  impl_->queue().post([weak = std::weak_ptr<Impl>(impl_), task = std::move(task)] {
    if (const auto impl = weak.lock()) impl->runBatched(task);
  });
}

void EventDataManager::performAndWaitJoiningSaves(const Executor::Task& task) {
  impl_->queue().performAndWait([&] { impl_->runJoiningSaves(task); });
}

void EventDataManager::saveContextLater(Executor::Task afterSave) {
  impl_->queue().post([weak = std::weak_ptr<Impl>(impl_), afterSave = std::move(afterSave)] {
    if (const auto impl = weak.lock()) impl->saveContext();
    if (afterSave) afterSave();
  });
}

EventDataManager::StoreKind EventDataManager::kind() const { return impl_->kind(); }

std::vector<std::shared_ptr<VNTRSyncEvent>> EventDataManager::deQueue(int64_t count) {
  bool failed = false;
  auto rows = impl_->newest(count, failed);
  if (failed) Debug(VantrelLogLevel::error, "Failed to load saved events for sending");
  Debug(VantrelLogLevel::verbose, "Found " + std::to_string(rows.size()) + " events to request.");
  std::vector<std::shared_ptr<VNTRSyncEvent>> events;
  events.reserve(rows.size());
  for (auto& row : rows) {
    events.push_back(std::make_shared<VNTRSyncEvent>(*this, row.pk, std::move(row.id),
                                                     std::move(row.jsonData), row.timeStamp));
  }
  return events;
}

void EventDataManager::removeOldest(int64_t count) { impl_->removeOldest(count); }
void EventDataManager::removeOlderThan(double seconds) { impl_->removeOlderThan(seconds); }
int64_t EventDataManager::count() { return impl_->count(); }
bool EventDataManager::checkID(const std::string& id) { return impl_->checkID(id); }
void EventDataManager::saveContext() { impl_->saveContext(); }
void EventDataManager::saveContextThen(Executor::Task afterSave) {
  impl_->saveContextThen(std::move(afterSave));
}
bool EventDataManager::hasChanges() const { return impl_->hasChanges(); }
int64_t EventDataManager::insert(std::string id, std::string jsonData, double timeStamp,
                                 std::shared_ptr<const store::RequestWriter> writer) {
  return impl_->insert(std::move(id), std::move(jsonData), timeStamp, std::move(writer));
}
void EventDataManager::remove(int64_t rowId, const std::string& id) { impl_->remove(rowId, id); }
void EventDataManager::abandonAfterFork() { impl_->abandonAfterFork(); }

}  // namespace vntr
