#include "store/EventDataManager.hpp"

#include <malloc.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cassert>

#include "core/Extensions.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/Sqlite.hpp"
#include "store/StoreOpening.hpp"
#include "store/StoreStatements.hpp"
#include "store/UnitOfWork.hpp"

namespace vntr {
namespace {

using store::Row;

constexpr int64_t kMaxQueuedAtStartup = 10000;
constexpr double kMaxAgeAtStartup = 1209600;  // 14 days
// After a burst of at least this many saves the memory it used is handed back.
constexpr size_t kLargeBurst = 1024;

constexpr const char* kNoStoreDescription = "The event store could not be opened";

std::string describe(const sqlite::Error& error) {
  return "{code = " + std::to_string(error.code) +
         ", extendedCode = " + std::to_string(error.extendedCode) + "}";
}

}  // namespace

class EventDataManager::Impl {
 public:
  Impl(std::shared_ptr<Executor> queue, std::shared_ptr<const Clock> clock)
      : queue_(std::move(queue)), clock_(std::move(clock)) {}

  void open(const std::filesystem::path& documentsDirectory, const AttemptFilter& allowed);
  void close();
  void startupTrim();
  void runBatched(const Executor::Task& task);
  void runJoiningSaves(const Executor::Task& task);

  std::vector<Row> newest(int64_t count, bool& failed);
  void removeOldest(int64_t count);
  void removeOlderThan(double seconds);
  int64_t count();
  bool checkID(const std::string& id);
  void saveContext();
  void saveContextThen(Executor::Task afterSave);
  bool hasChanges() const { return changes_.hasChanges(); }
  int64_t insert(std::string id, std::string jsonData, double timeStamp);
  void remove(int64_t pk, const std::string& id);
  void abandonAfterFork();

  Executor& queue() { return *queue_; }
  StoreKind kind() const { return kind_.load(); }
  std::atomic<int64_t>& queuedBatched() { return queuedBatched_; }

 private:
  void assertOnQueue() const { assert(queue_->isCurrent()); }
  void reportOverflow();
  // Ends a transaction left open with nothing to save (a failed commit rolls back).
  void endTransaction() {
    if (db_ && db_->inTransaction() && !db_->exec("COMMIT")) db_->exec("ROLLBACK");
  }
  // A large burst leaves its intake buffers, built requests and SQLite's cache pages freed but
  // kept by the allocator (in the arenas of the threads that made them), and a host mostly
  // idles after one, so the pages go back to the system. malloc_trim walks every arena of the
  // process, the host's too, and only returns pages that are free; once per large burst.
  void releaseMemory() {
    if (db_) sqlite3_db_release_memory(db_->handle());
    ::malloc_trim(0);
  }

  const std::shared_ptr<Executor> queue_;
  const std::shared_ptr<const Clock> clock_;
  std::atomic<StoreKind> kind_{StoreKind::none};  // written once, by open()

  // Confined to the queue.
  std::unique_ptr<sqlite::Database> db_;
  int64_t nextProvisionalKey_ = store::kFirstProvisionalKey;
  store::UnitOfWork changes_;
  std::vector<Executor::Task> afterSave_;
  bool batching_ = false;
  bool inBurst_ = false;   // runBatched: the burst's transaction outlives the saves inside it
  size_t burstSaves_ = 0;  // saves asked for since the burst began

  std::atomic<int64_t> queuedBatched_{0};  // batched tasks posted and not yet started
};

void EventDataManager::Impl::open(const std::filesystem::path& documentsDirectory,
                                  const AttemptFilter& allowed) {
  auto opened = store::openStore(documentsDirectory, allowed);
  db_ = std::move(opened.db);
  kind_.store(opened.kind);
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
  // Nested in a burst (or in another joining task), the outer one saves.
  if (batching_) {
    task();
    return;
  }
  // One transaction spans the task: a batch answer looks up and deletes each of its requests,
  // which would otherwise take and drop the file locks once per request. The save commits it;
  // a task that leaves nothing to save (or throws) ends it here.
  struct Joining {
    Impl& impl;
    bool began = false;
    explicit Joining(Impl& i) : impl(i) {
      impl.batching_ = true;
      // Answers only delete: their commit need not wait for the disk (see UnitOfWork::commit).
      began = impl.db_ && !impl.db_->inTransaction() && impl.db_->begin(/*durable=*/false);
    }
    ~Joining() {
      impl.batching_ = false;
      if (began) impl.endTransaction();
    }
  } joining(*this);
  task();
  batching_ = false;
  if (hasChanges() || !afterSave_.empty()) saveContext();
}

std::vector<Row> EventDataManager::Impl::newest(int64_t count, bool& failed) {
  assertOnQueue();
  failed = false;
  std::vector<Row> rows;
  if (!db_) {
    failed = true;
    return rows;
  }
  const bool all = count <= 0;
  {
    auto select = db_->statement(store::kSelectNewest);
    select.bind(1, all ? int64_t{-1} : count + static_cast<int64_t>(changes_.deletedCount()));
    for (;;) {
      const auto step = select.step();
      if (step == sqlite::Statement::Step::done) break;
      if (step == sqlite::Statement::Step::error) {
        failed = true;
        return {};
      }
      const int64_t pk = select.columnInt64(0);
      if (changes_.isDeleted(pk)) continue;
      rows.push_back(Row{pk, select.columnText(1), select.columnBlob(2), select.columnDouble(3)});
    }
  }
  if (!changes_.inserted().empty()) {
    std::vector<const Row*> pending;
    pending.reserve(changes_.inserted().size());
    for (const auto& row : changes_.inserted()) pending.push_back(&row);
    std::sort(pending.begin(), pending.end(), [](const Row* a, const Row* b) {
      return store::newerThan(a->timeStamp, a->pk, b->timeStamp, b->pk);
    });
    std::vector<Row> merged;
    merged.reserve(rows.size() + pending.size());
    size_t i = 0;
    size_t j = 0;
    while (i < rows.size() || j < pending.size()) {
      const bool takeSaved =
          j == pending.size() ||
          (i < rows.size() &&
           store::newerThan(rows[i].timeStamp, rows[i].pk, pending[j]->timeStamp, pending[j]->pk));
      merged.push_back(takeSaved ? std::move(rows[i++]) : *pending[j++]);
      if (!all && static_cast<int64_t>(merged.size()) == count) break;
    }
    rows = std::move(merged);
  }
  if (!all && static_cast<int64_t>(rows.size()) > count) rows.resize(static_cast<size_t>(count));
  return rows;
}

void EventDataManager::Impl::removeOldest(int64_t count) {
  assertOnQueue();
  if (!db_) {
    Debug(VantrelLogLevel::error, "Failed to load events for deleting.");
    return;
  }
  const bool all = count <= 0;
  std::vector<std::pair<double, int64_t>> saved;  // (timeStamp, pk), oldest first
  {
    auto select = db_->statement(store::kSelectOldest);
    select.bind(1, all ? int64_t{-1} : count + static_cast<int64_t>(changes_.deletedCount()));
    for (;;) {
      const auto step = select.step();
      if (step == sqlite::Statement::Step::done) break;
      if (step == sqlite::Statement::Step::error) {
        Debug(VantrelLogLevel::error, "Failed to load events for deleting.");
        return;
      }
      const int64_t pk = select.columnInt64(0);
      if (!changes_.isDeleted(pk)) saved.emplace_back(select.columnDouble(1), pk);
    }
  }
  std::vector<std::pair<double, int64_t>> pending;
  for (const auto& row : changes_.inserted()) pending.emplace_back(row.timeStamp, row.pk);
  const auto olderThan = [](const auto& a, const auto& b) {
    return store::newerThan(b.first, b.second, a.first, a.second);
  };
  std::sort(pending.begin(), pending.end(), olderThan);
  std::vector<std::pair<double, int64_t>> victims;
  std::merge(saved.begin(), saved.end(), pending.begin(), pending.end(),
             std::back_inserter(victims), olderThan);
  if (!all && static_cast<int64_t>(victims.size()) > count) {
    victims.resize(static_cast<size_t>(count));
  }
  std::vector<int64_t> savedVictims;
  for (const auto& [timeStamp, pk] : victims) {
    if (!changes_.dropInsert(pk)) savedVictims.push_back(pk);
  }
  changes_.markDeleted(savedVictims);
  saveContext();
}

void EventDataManager::Impl::removeOlderThan(double seconds) {
  assertOnQueue();
  if (!db_) {
    Debug(VantrelLogLevel::error, "Failed to load events for deleting.");
    return;
  }
  const double cutoff = referenceDateSeconds(clock_->now()) - seconds;
  std::vector<int64_t> pks;
  {
    auto select = db_->statement(store::kSelectOlderThan);
    select.bind(1, cutoff);
    for (;;) {
      const auto step = select.step();
      if (step == sqlite::Statement::Step::done) break;
      if (step == sqlite::Statement::Step::error) {
        Debug(VantrelLogLevel::error, "Failed to load events for deleting.");
        return;
      }
      pks.push_back(select.columnInt64(0));
    }
  }
  changes_.markDeleted(pks);
  changes_.dropInsertsOlderThan(cutoff);
  saveContext();
}

int64_t EventDataManager::Impl::count() {
  assertOnQueue();
  if (db_) {
    auto select = db_->statement(store::kCount);
    if (select.step() == sqlite::Statement::Step::row) {
      return select.columnInt64(0) - static_cast<int64_t>(changes_.deletedCount()) +
             static_cast<int64_t>(changes_.inserted().size());
    }
  }
  Debug(VantrelLogLevel::error, "Failed to load events for counting.");
  return 0;
}

bool EventDataManager::Impl::checkID(const std::string& id) {
  assertOnQueue();
  if (changes_.hasInsertedId(id)) return true;
  if (!db_) {
    Debug(VantrelLogLevel::warning, "Check ID search failed for " + id);
    return false;
  }
  auto select = db_->statement(store::kSelectById);
  select.bindText(1, id);
  // Enough rows to get past every pending delete.
  select.bind(2, static_cast<int64_t>(changes_.deletedCount()) + 1);
  for (;;) {
    switch (select.step()) {
      case sqlite::Statement::Step::row:
        if (!changes_.isDeleted(select.columnInt64(0))) return true;
        break;
      case sqlite::Statement::Step::done:
        return false;
      case sqlite::Statement::Step::error:
        Debug(VantrelLogLevel::warning, "Check ID search failed for " + id);
        return false;
    }
  }
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

int64_t EventDataManager::Impl::insert(std::string id, std::string jsonData, double timeStamp) {
  assertOnQueue();
  if (!db_) {
    changes_.noteDropped();
    return -1;
  }
  const int64_t pk = nextProvisionalKey_++;
  changes_.insert(Row{pk, std::move(id), std::move(jsonData), timeStamp});
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
    auto select = db_->statement(store::kSelectById);
    select.bindText(1, id);
    select.bind(2, static_cast<int64_t>(changes_.deletedCount()) + 1);
    while (select.step() == sqlite::Statement::Step::row) {
      if (!changes_.isDeleted(select.columnInt64(0))) {
        changes_.markDeleted(select.columnInt64(0));
        return;
      }
    }
    return;
  }
  if (changes_.isDeleted(pk)) return;
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

EventDataManager::EventDataManager(std::filesystem::path documentsDirectory,
                                   std::shared_ptr<Executor> queue,
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
int64_t EventDataManager::insert(std::string id, std::string jsonData, double timeStamp) {
  return impl_->insert(std::move(id), std::move(jsonData), timeStamp);
}
void EventDataManager::remove(int64_t rowId, const std::string& id) { impl_->remove(rowId, id); }
void EventDataManager::abandonAfterFork() { impl_->abandonAfterFork(); }

}  // namespace vntr
