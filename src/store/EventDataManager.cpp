#include "store/EventDataManager.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <deque>
#include <unordered_set>

#include "core/Extensions.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/Sqlite.hpp"

namespace vntr {
namespace {

constexpr const char* kStoreFileName = "requests_Data.sqlite";
constexpr int64_t kMaxQueuedAtStartup = 10000;
constexpr double kMaxAgeAtStartup = 1209600;  // 14 days
// Unsaved inserts kept while saves keep failing (a full disk); the oldest go first, as the
// start-up trim would drop them anyway.
constexpr size_t kMaxPendingInserts = 10000;

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS SyncEvent (pk INTEGER PRIMARY KEY, id TEXT, jsonData BLOB, "
    "timeStamp REAL NOT NULL DEFAULT 0)";
constexpr const char* kCreateTimeStampIndex =
    "CREATE INDEX IF NOT EXISTS SyncEvent_timeStamp ON SyncEvent (timeStamp)";
constexpr const char* kCreateIdIndex = "CREATE INDEX IF NOT EXISTS SyncEvent_id ON SyncEvent (id)";

constexpr const char* kSelectNewest =
    "SELECT pk, id, jsonData, timeStamp FROM SyncEvent ORDER BY timeStamp DESC, pk DESC LIMIT ?1";
constexpr const char* kSelectOldest =
    "SELECT pk, timeStamp FROM SyncEvent ORDER BY timeStamp ASC, pk ASC LIMIT ?1";
constexpr const char* kSelectOlderThan = "SELECT pk FROM SyncEvent WHERE timeStamp < ?1";
constexpr const char* kCount = "SELECT COUNT(*) FROM SyncEvent";
constexpr const char* kSelectById = "SELECT pk FROM SyncEvent WHERE id = ?1 LIMIT ?2";
constexpr const char* kExists = "SELECT 1 FROM SyncEvent WHERE pk = ?1";
constexpr const char* kMaxPk = "SELECT MAX(pk) FROM SyncEvent";
constexpr const char* kInsert =
    "INSERT INTO SyncEvent (pk, id, jsonData, timeStamp) VALUES (?1, ?2, ?3, ?4)";
constexpr const char* kDelete = "DELETE FROM SyncEvent WHERE pk = ?1";

constexpr const char* kNoStoreDescription = "The event store could not be opened";

struct Row {
  int64_t pk = 0;
  std::string id;
  std::string jsonData;
  double timeStamp = 0;
};

// Queue order: by creation time, then by insertion.
bool newerThan(double ts1, int64_t pk1, double ts2, int64_t pk2) {
  return ts1 != ts2 ? ts1 > ts2 : pk1 > pk2;
}

std::string describe(const sqlite::Error& error) {
  return "{code = " + std::to_string(error.code) +
         ", extendedCode = " + std::to_string(error.extendedCode) + "}";
}

// Creates the store file readable by the user only before SQLite opens it; SQLite gives its
// -wal and -shm companions the same mode.
bool prepareStoreFile(const std::filesystem::path& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) return false;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  (void)::fchmod(fd, 0600);
  ::close(fd);
  return true;
}

// Connection settings and the schema; reports false when the database is unusable, so a
// broken file is found now rather than at the first batch.
bool prepareDatabase(sqlite::Database& db, bool onDisk) {
  sqlite3_busy_timeout(db.handle(), 2000);
  if (onDisk) {
    {
      auto mode = db.statement("PRAGMA journal_mode=WAL");
      if (!mode || mode.step() != sqlite::Statement::Step::row) return false;
    }
    // Every commit reaches stable storage before it returns: eventCreated is reported after
    // the commit, and a power cut must not take back what it announced. Commits are batched
    // (up to kMaxBatchedSaves builds), so this costs one sync per commit, not per event.
    if (!db.exec("PRAGMA synchronous=FULL")) return false;
    // SQLite's default of 2 MiB, stated: a larger cache bought no speed with 100,000 requests
    // queued (the rest of the index sits in the kernel's page cache), only resident memory.
    db.exec("PRAGMA cache_size=-2048");
    auto check = db.statement("PRAGMA quick_check");
    if (!check || check.step() != sqlite::Statement::Step::row || check.columnText(0) != "ok") {
      return false;
    }
  }
  if (!db.exec(kCreateTable) || !db.exec(kCreateTimeStampIndex) || !db.exec(kCreateIdIndex)) {
    return false;
  }
  // A table of the same name with other columns is not ours: every statement must prepare.
  for (const char* sql : {kSelectNewest, kSelectOldest, kSelectOlderThan, kCount, kSelectById,
                          kExists, kMaxPk, kInsert, kDelete}) {
    if (!db.statement(sql)) return false;
  }
  return true;
}

// Deletes the broken store file. Its -wal, -shm and -journal companions go too: a stale
// write-ahead log would otherwise be replayed into the new, empty database.
bool deleteStoreFile(const std::filesystem::path& path) {
  std::error_code ec;
  const auto status = std::filesystem::symlink_status(path, ec);
  if (ec || !std::filesystem::exists(status) || std::filesystem::is_directory(status)) {
    return false;
  }
  if (!std::filesystem::remove(path, ec) || ec) return false;
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    std::filesystem::remove(path.string() + suffix, ec);
  }
  return true;
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
  bool hasChanges() const { return !inserted_.empty() || !deleted_.empty() || droppedChanges_; }
  int64_t insert(std::string id, std::string jsonData, double timeStamp);
  void remove(int64_t pk);

  Executor& queue() { return *queue_; }
  StoreKind kind() const { return kind_; }
  std::atomic<int64_t>& queuedBatched() { return queuedBatched_; }

 private:
  bool attempt(StoreKind kind, const std::filesystem::path& path, const AttemptFilter& allowed);
  bool commitPending(sqlite::Error& error);
  void markDeleted(const std::vector<int64_t>& pks);
  void dropPendingInsert(std::deque<Row>::iterator row);
  bool dropPendingInsert(int64_t pk);
  void assertOnQueue() const { assert(queue_->isCurrent()); }
  // Begins a transaction whose commit waits for the disk or not (SQLite takes the setting
  // only between transactions). Commits holding new requests sync: eventCreated follows them
  // and must survive a power cut. A commit that only deletes answered requests does not: the
  // batch cycle waits for it, and a power cut can at worst send those requests again; the next
  // synced commit carries the log up to itself, those deletes included.
  bool begin(bool sync) {
    if (sync != syncingCommits_ &&
        db_->exec(sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL")) {
      syncingCommits_ = sync;
    }
    return db_->exec("BEGIN IMMEDIATE");
  }
  // Ends a transaction left open with nothing to save (a failed commit rolls back).
  void endTransaction() {
    if (db_ && db_->inTransaction() && !db_->exec("COMMIT")) db_->exec("ROLLBACK");
  }

  const std::shared_ptr<Executor> queue_;
  const std::shared_ptr<const Clock> clock_;
  StoreKind kind_ = StoreKind::none;  // written once by open(), before anyone else sees us
  bool lockedByOther_ = false;        // open() only: the last attempt failed on a lock

  // Confined to the queue.
  std::unique_ptr<sqlite::Database> db_;
  int64_t nextPk_ = 1;
  std::deque<Row> inserted_;  // unsaved inserts, ascending pk
  std::unordered_multiset<std::string> insertedIds_;
  std::unordered_set<int64_t> deleted_;  // unsaved deletes of saved rows
  bool droppedChanges_ = false;          // no store: changes since the last save were lost
  bool syncingCommits_ = true;           // synchronous=FULL, as prepareDatabase sets it
  std::vector<Executor::Task> afterSave_;
  bool batching_ = false;
  bool inBurst_ = false;  // runBatched: the burst's transaction outlives the saves inside it

  std::atomic<int64_t> queuedBatched_{0};  // batched tasks posted and not yet started
};

bool EventDataManager::Impl::attempt(StoreKind kind, const std::filesystem::path& path,
                                     const AttemptFilter& allowed) {
  if (allowed && !allowed(kind)) return false;
  const bool onDisk = kind != StoreKind::memory;
  if (onDisk && !prepareStoreFile(path)) return false;
  sqlite::Error error;
  auto db = onDisk
                ? sqlite::Database::open(
                      path.string(),
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, error)
                : sqlite::Database::open(
                      ":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      error);
  if (!db) return false;
  const auto fail = [&] {
    const int code = db->lastError().code;
    lockedByOther_ = code == SQLITE_BUSY || code == SQLITE_LOCKED;
    return false;
  };
  if (!prepareDatabase(*db, onDisk)) return fail();
  auto maxPk = db->statement(kMaxPk);
  if (maxPk.step() != sqlite::Statement::Step::row) return fail();
  nextPk_ = maxPk.columnInt64(0) + 1;
  db_ = std::move(db);
  kind_ = kind;
  return true;
}

void EventDataManager::Impl::open(const std::filesystem::path& documentsDirectory,
                                  const AttemptFilter& allowed) {
  std::error_code ec;
  std::filesystem::create_directories(documentsDirectory, ec);
  const auto path = documentsDirectory / kStoreFileName;
  if (attempt(StoreKind::sqlite, path, allowed)) return;
  Debug(VantrelLogLevel::error,
        "Failed to initialize the event store.  Attempting to create new store.");
  // A file another process keeps locked is not broken: it is left alone, not deleted.
  if (!lockedByOther_ && deleteStoreFile(path) && attempt(StoreKind::recreated, path, allowed)) {
    return;
  }
  Debug(VantrelLogLevel::error,
        "Failed to initialize new event store.  Will attempt in memory storage.");
  if (attempt(StoreKind::memory, path, allowed)) return;
  Debug(VantrelLogLevel::fatal,
        "Failed to initialize new in memory store.  We are out of options.");
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
  if (db_ && !db_->inTransaction()) begin(true);
  batching_ = inBurst_ = true;
  runGuarded(task);
  batching_ = inBurst_ = false;
  const bool burstOver = queuedBatched_.load(std::memory_order_acquire) == 0;
  if ((hasChanges() || !afterSave_.empty()) &&
      (burstOver || afterSave_.size() >= EventDataManager::kMaxBatchedSaves)) {
    saveContext();
  }
  // A burst that ends with nothing to save still releases its transaction.
  if (burstOver) endTransaction();
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
      began = impl.db_ && !impl.db_->inTransaction() && impl.begin(false);
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
    auto select = db_->statement(kSelectNewest);
    select.bind(1, all ? int64_t{-1} : count + static_cast<int64_t>(deleted_.size()));
    for (;;) {
      const auto step = select.step();
      if (step == sqlite::Statement::Step::done) break;
      if (step == sqlite::Statement::Step::error) {
        failed = true;
        return {};
      }
      const int64_t pk = select.columnInt64(0);
      if (deleted_.count(pk) != 0) continue;
      rows.push_back(Row{pk, select.columnText(1), select.columnBlob(2), select.columnDouble(3)});
    }
  }
  if (!inserted_.empty()) {
    std::vector<const Row*> pending;
    pending.reserve(inserted_.size());
    for (const auto& row : inserted_) pending.push_back(&row);
    std::sort(pending.begin(), pending.end(), [](const Row* a, const Row* b) {
      return newerThan(a->timeStamp, a->pk, b->timeStamp, b->pk);
    });
    std::vector<Row> merged;
    merged.reserve(rows.size() + pending.size());
    size_t i = 0;
    size_t j = 0;
    while (i < rows.size() || j < pending.size()) {
      const bool takeSaved = j == pending.size() ||
                             (i < rows.size() && newerThan(rows[i].timeStamp, rows[i].pk,
                                                           pending[j]->timeStamp, pending[j]->pk));
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
    auto select = db_->statement(kSelectOldest);
    select.bind(1, all ? int64_t{-1} : count + static_cast<int64_t>(deleted_.size()));
    for (;;) {
      const auto step = select.step();
      if (step == sqlite::Statement::Step::done) break;
      if (step == sqlite::Statement::Step::error) {
        Debug(VantrelLogLevel::error, "Failed to load events for deleting.");
        return;
      }
      const int64_t pk = select.columnInt64(0);
      if (deleted_.count(pk) == 0) saved.emplace_back(select.columnDouble(1), pk);
    }
  }
  std::vector<std::pair<double, int64_t>> pending;
  for (const auto& row : inserted_) pending.emplace_back(row.timeStamp, row.pk);
  std::sort(pending.begin(), pending.end());
  std::vector<std::pair<double, int64_t>> victims;
  std::merge(saved.begin(), saved.end(), pending.begin(), pending.end(),
             std::back_inserter(victims));
  if (!all && static_cast<int64_t>(victims.size()) > count) {
    victims.resize(static_cast<size_t>(count));
  }
  std::vector<int64_t> savedVictims;
  for (const auto& [timeStamp, pk] : victims) {
    if (!dropPendingInsert(pk)) savedVictims.push_back(pk);
  }
  markDeleted(savedVictims);
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
    auto select = db_->statement(kSelectOlderThan);
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
  markDeleted(pks);
  for (auto row = inserted_.begin(); row != inserted_.end();) {
    if (row->timeStamp < cutoff) {
      insertedIds_.erase(insertedIds_.find(row->id));
      row = inserted_.erase(row);
    } else {
      ++row;
    }
  }
  saveContext();
}

int64_t EventDataManager::Impl::count() {
  assertOnQueue();
  if (db_) {
    auto select = db_->statement(kCount);
    if (select.step() == sqlite::Statement::Step::row) {
      return select.columnInt64(0) - static_cast<int64_t>(deleted_.size()) +
             static_cast<int64_t>(inserted_.size());
    }
  }
  Debug(VantrelLogLevel::error, "Failed to load events for counting.");
  return 0;
}

bool EventDataManager::Impl::checkID(const std::string& id) {
  assertOnQueue();
  if (insertedIds_.count(id) != 0) return true;
  if (!db_) {
    Debug(VantrelLogLevel::warning, "Check ID search failed for " + id);
    return false;
  }
  auto select = db_->statement(kSelectById);
  select.bindText(1, id);
  // Enough rows to get past every pending delete.
  select.bind(2, static_cast<int64_t>(deleted_.size()) + 1);
  for (;;) {
    switch (select.step()) {
      case sqlite::Statement::Step::row:
        if (deleted_.count(select.columnInt64(0)) == 0) return true;
        break;
      case sqlite::Statement::Step::done:
        return false;
      case sqlite::Statement::Step::error:
        Debug(VantrelLogLevel::warning, "Check ID search failed for " + id);
        return false;
    }
  }
}

bool EventDataManager::Impl::commitPending(sqlite::Error& error) {
  const auto fail = [&] {
    error = db_->lastError();
    if (db_->inTransaction()) db_->exec("ROLLBACK");
    return false;
  };
  // A burst may already have begun the transaction.
  if (!db_->inTransaction() && !begin(!inserted_.empty())) return fail();
  for (const int64_t pk : deleted_) {
    auto del = db_->statement(kDelete);
    del.bind(1, pk);
    if (del.step() != sqlite::Statement::Step::done) return fail();
  }
  for (const auto& row : inserted_) {
    auto ins = db_->statement(kInsert);
    const bool bound = ins.bind(1, row.pk) && ins.bindText(2, row.id) &&
                       ins.bindBlob(3, row.jsonData) && ins.bind(4, row.timeStamp);
    if (!bound || ins.step() != sqlite::Statement::Step::done) return fail();
  }
  if (!db_->exec("COMMIT")) return fail();
  // New requests in a transaction begun without syncing (none are expected there): a checkpoint
  // syncs the log first, so they too are on stable storage before anyone hears of them.
  if (!syncingCommits_ && !inserted_.empty()) db_->exec("PRAGMA wal_checkpoint(PASSIVE)");
  return true;
}

void EventDataManager::Impl::saveContext() {
  assertOnQueue();
  if (hasChanges()) {
    if (!db_) {
      // Without a database nothing can be kept; report the loss once and let it go.
      droppedChanges_ = false;
      Debug(VantrelLogLevel::error, std::string("Saving event queue failed with: ") +
                                        kNoStoreDescription + ", " +
                                        "{code = 0, extendedCode = 0}");
    } else if (sqlite::Error error; !commitPending(error)) {
      Debug(VantrelLogLevel::error,
            "Saving event queue failed with: " + error.message + ", " + describe(error));
    } else {
      inserted_.clear();
      insertedIds_.clear();
      deleted_.clear();
    }
  }
  if (afterSave_.empty()) return;
  auto callbacks = std::move(afterSave_);
  afterSave_.clear();
  for (const auto& callback : callbacks) runGuarded(callback);
}

void EventDataManager::Impl::saveContextThen(Executor::Task afterSave) {
  afterSave_.push_back(std::move(afterSave));
  // A joined commit is bounded even inside one task that saves many times.
  if (batching_ && afterSave_.size() < EventDataManager::kMaxBatchedSaves) return;
  saveContext();
  // The builds still to come in this burst keep looking ids up; without an open transaction
  // every lookup would take and drop the file locks again.
  if (inBurst_ && db_ && !db_->inTransaction()) begin(true);
}

int64_t EventDataManager::Impl::insert(std::string id, std::string jsonData, double timeStamp) {
  assertOnQueue();
  if (!db_) {
    droppedChanges_ = true;
    return -1;
  }
  const int64_t pk = nextPk_++;
  insertedIds_.insert(id);
  inserted_.push_back(Row{pk, std::move(id), std::move(jsonData), timeStamp});
  if (inserted_.size() > kMaxPendingInserts) dropPendingInsert(inserted_.begin());
  return pk;
}

void EventDataManager::Impl::dropPendingInsert(std::deque<Row>::iterator row) {
  insertedIds_.erase(insertedIds_.find(row->id));
  inserted_.erase(row);
}

bool EventDataManager::Impl::dropPendingInsert(int64_t pk) {
  const auto pending = std::lower_bound(inserted_.begin(), inserted_.end(), pk,
                                        [](const Row& row, int64_t key) { return row.pk < key; });
  if (pending == inserted_.end() || pending->pk != pk) return false;
  dropPendingInsert(pending);
  return true;
}

void EventDataManager::Impl::remove(int64_t pk) {
  assertOnQueue();
  if (dropPendingInsert(pk)) return;
  if (!db_ || deleted_.count(pk) != 0) return;
  auto exists = db_->statement(kExists);
  exists.bind(1, pk);
  if (exists.step() == sqlite::Statement::Step::row) deleted_.insert(pk);
}

void EventDataManager::Impl::markDeleted(const std::vector<int64_t>& pks) {
  deleted_.insert(pks.begin(), pks.end());
}

// --- EventDataManager ---

EventDataManager::EventDataManager(std::filesystem::path documentsDirectory,
                                   std::shared_ptr<Executor> queue,
                                   std::shared_ptr<const Clock> clock, AttemptFilter attemptFilter)
    : impl_(std::make_shared<Impl>(std::move(queue), std::move(clock))) {
  impl_->open(documentsDirectory, attemptFilter);
  impl_->queue().post([weak = std::weak_ptr<Impl>(impl_)] {
    if (const auto impl = weak.lock()) impl->startupTrim();
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
void EventDataManager::remove(int64_t rowId) { impl_->remove(rowId); }

}  // namespace vntr
