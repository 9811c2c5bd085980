#pragma once

// The store's implementation, shared by the files that make it up: the queue's machinery
// (EventDataManager.cpp) and its reads and trims (StoreQueries.cpp).
#include <malloc.h>
#include <sqlite3.h>

#include <atomic>
#include <cassert>
#include <memory>
#include <optional>
#include <vector>

#include "store/EventDataManager.hpp"
#include "store/Sqlite.hpp"
#include "store/StoreStatements.hpp"
#include "store/UnitOfWork.hpp"

namespace vntr {

class EventDataManager::Impl : public std::enable_shared_from_this<EventDataManager::Impl> {
 public:
  Impl(std::shared_ptr<Executor> queue, std::shared_ptr<const Clock> clock)
      : queue_(std::move(queue)), clock_(std::move(clock)) {}

  void open(const std::string& documentsDirectory, const AttemptFilter& allowed);
  void close();
  void startupTrim();
  void runBatched(const Executor::Task& task);
  void runJoiningSaves(const Executor::Task& task);

  std::vector<store::Row> newest(int64_t count, bool& failed);
  void removeOldest(int64_t count);
  void removeOlderThan(double seconds);
  int64_t count();
  bool checkID(const std::string& id);
  void saveContext();
  void saveContextThen(Executor::Task afterSave);
  bool hasChanges() const { return changes_.hasChanges(); }
  int64_t insert(std::string id, std::string jsonData, double timeStamp,
                 std::shared_ptr<const store::RequestWriter> writer);
  void remove(int64_t pk, const std::string& id);
  void abandonAfterFork();

  Executor& queue() { return *queue_; }
  StoreKind kind() const { return kind_.load(); }
  std::atomic<int64_t>& queuedBatched() { return queuedBatched_; }

 private:
  void assertOnQueue() const { assert(queue_->isCurrent()); }
  // The saved row of request `id` that no pending delete removes; `failed` when the search
  // failed.
  std::optional<int64_t> savedPk(const std::string& id, bool& failed);
  void reportOverflow();
  // SQLite's write-ahead log hook, after each commit: asks for a checkpoint once the log holds
  // kCheckpointPages pages. The checkpoint runs as a task of its own, so the commit that filled
  // the log (a batch's answers, say) does not wait for it.
  static int walCommitted(void* impl, sqlite3* db, const char* name, int pages);
  void checkpoint();
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
  bool inBurst_ = false;  // runBatched: the burst's transaction outlives the saves inside it
  bool checkpointQueued_ = false;  // a checkpoint task is posted and has not run
  size_t burstSaves_ = 0;          // saves asked for since the burst began

  std::atomic<int64_t> queuedBatched_{0};  // batched tasks posted and not yet started
};

}  // namespace vntr
