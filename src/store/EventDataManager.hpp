#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include <vntr/Executor.hpp>

#include "core/Clock.hpp"

namespace vntr {

class VNTRSyncEvent;
namespace store {
class RequestWriter;
}

/// The on-device queue of pending event requests: one SQLite database
/// ("requests_Data.sqlite" in the documents directory) owned by one serial queue.
///
/// Every operation marked "queue only" must run inside a task of `queue()` (through `perform`,
/// `performBatched` or `performAndWait`); the connection and the pending changes are confined
/// to that queue. Changes work like a unit of work: inserts and deletes are visible to later
/// reads on the queue at once and reach the file at the next `saveContext()`. A save that fails
/// is logged and its changes stay pending for the next one.
///
/// The store never throws. When no database can be opened at all, every operation logs its
/// failure line and behaves as an empty queue.
class EventDataManager {
 public:
  /// The id of requests whose answer is not tracked (low priority); several may share it.
  static inline const std::string nilID{};

  /// How the fallback chain ended: the file as found, a fresh file after deleting a broken
  /// one, an in-memory database, or nothing at all.
  enum class StoreKind { sqlite, recreated, memory, none };

  /// Lets a test refuse chosen attempts of the fallback chain (`sqlite`: opening the file;
  /// `recreated`: reopening it after the delete; `memory`). Production passes nothing.
  using AttemptFilter = std::function<bool(StoreKind attempt)>;

  /// Returns at once: the first task it posts to `queue` runs the fallback chain on
  /// `documentsDirectory`/"requests_Data.sqlite" (the directory is created when missing), then
  /// the start-up trim, so every later task finds the store open.
  EventDataManager(std::string documentsDirectory, std::shared_ptr<Executor> queue,
                   std::shared_ptr<const Clock> clock, AttemptFilter attemptFilter = {});
  /// Waits for the work already queued (performAndWait on the queue), saves what is still
  /// pending and closes the connection on the queue. Process-wide instances never get here.
  ~EventDataManager();
  EventDataManager(const EventDataManager&) = delete;
  EventDataManager& operator=(const EventDataManager&) = delete;

  /// The store ("context") queue; any thread.
  Executor& queue();
  /// Runs `task` on the queue later; any thread.
  void perform(Executor::Task task);
  /// Runs `task` on the queue and waits; inline when already on the queue. Any thread.
  void performAndWait(const Executor::Task& task);
  /// Batched tasks joined into one commit at most. It bounds the transaction, how long a
  /// created event waits for its statistic (a few tens of milliseconds), and the memory held by
  /// requests built and not yet committed (about 0.35 MB). Each commit pays one sync of the log
  /// (0.55 ms here, several milliseconds on a slow disk), and large commits matter once the
  /// queue is big: random ids land all over the id index and each commit rewrites every index
  /// page it touched. 512 syncs 33 times for a 10,000-call burst where 1024 synced 23 times, and
  /// holds 250 KiB less at the peak; 2048 stored no faster and held 1 MiB more.
  static constexpr size_t kMaxBatchedSaves = 512;

  /// Like `perform`, for work that saves with `saveContextThen`: the saves of the task, and of
  /// more such tasks already waiting behind it, are joined into one commit (at most
  /// kMaxBatchedSaves saves) made when the last of them ends, so a burst of events costs one
  /// commit instead of one each. Any thread.
  void performBatched(Executor::Task task);
  /// Like `performAndWait`, with every save that `task` asks for through `saveContextThen`
  /// held back and joined: the answers to a whole batch cost one commit instead of one each,
  /// made by the queue's next save (`saveContextLater`, say). Until then every read on the
  /// queue leaves the pending deletes out. Any thread.
  void performAndWaitJoiningSaves(const Executor::Task& task);
  /// Saves in a task of the queue, then runs `afterSave` there (also without a store). Any
  /// thread.
  void saveContextLater(Executor::Task afterSave);
  /// How the fallback chain ended (`none` until it has run on the queue); any thread.
  StoreKind kind() const;

  // --- queue only ---

  /// Up to `count` stored requests (all of them for 0), newest first; they stay stored.
  std::vector<std::shared_ptr<VNTRSyncEvent>> deQueue(int64_t count);
  /// Deletes the `count` oldest requests (all of them for 0), then saves.
  void removeOldest(int64_t count);
  /// Deletes every request created strictly before now - `seconds`, then saves.
  void removeOlderThan(double seconds);
  /// Number of stored requests, pending changes included.
  int64_t count();
  /// True when at least one stored request has this id.
  bool checkID(const std::string& id);
  /// Commits the pending changes (a failure is logged; they stay pending), then runs the
  /// callbacks registered with `saveContextThen`.
  void saveContext();
  /// Saves and then runs `afterSave`. Inside a `performBatched` task the save (and so
  /// `afterSave`) may be left to the end of the task or to a later task of the same burst,
  /// until kMaxBatchedSaves saves wait; inside
  /// `performAndWaitJoiningSaves` it is left to the queue's next save.
  void saveContextThen(Executor::Task afterSave);
  /// True while changes are pending.
  bool hasChanges() const;
  /// Adds a request; returns its row id, or -1 when there is no store. With a `writer`,
  /// `jsonData` holds the request's parts, written out by it when the text is needed.
  int64_t insert(std::string id, std::string jsonData, double timeStamp,
                 std::shared_ptr<const store::RequestWriter> writer = nullptr);
  /// Deletes the request with this row id. A request handed out before its save still carries a
  /// provisional row id; the save's row is then found by its request `id`. Unknown ids are
  /// ignored.
  void remove(int64_t rowId, const std::string& id = nilID);

  /// In a forked child, before anything else touches the store: lets go of the parent's
  /// connection and unsaved changes without writing anything, so the parent's files stay
  /// untouched; every later operation behaves as a store with no database. Any thread (the
  /// child has one).
  void abandonAfterFork();

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vntr
