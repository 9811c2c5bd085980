#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "store/Sqlite.hpp"
#include "store/StoreStatements.hpp"

namespace vntr::store {

/// The changes made since the last save: inserts not yet written and deletes of written rows.
/// Reads on the store merge them in, so they are visible at once; `commit` writes them in one
/// transaction. Confined to the store queue, like the connection.
class UnitOfWork {
 public:
  /// Unsaved inserts kept while saves keep failing (a full disk): a few MB of typical requests,
  /// kept as parts. Past it the oldest go first, as the start-up trim would drop them anyway; they
  /// are counted, and the store logs the count.
  static constexpr size_t kMaxPendingInserts = 10000;

  bool hasChanges() const { return !inserted_.empty() || !deleted_.empty() || dropped_; }
  /// Unsaved inserts, ascending pk.
  const std::deque<Row>& inserted() const { return inserted_; }
  size_t deletedCount() const { return deleted_.size(); }
  bool isDeleted(int64_t pk) const { return deleted_.count(pk) != 0; }
  bool hasInsertedId(const std::string& id) const { return insertedIds_.count(id) != 0; }

  /// Adds an insert with a pk above every pending one.
  void insert(Row row);
  /// Forgets the pending insert with this pk; false when there is none.
  bool dropInsert(int64_t pk);
  /// Forgets every pending insert created strictly before `cutoff`.
  void dropInsertsOlderThan(double cutoff);
  void markDeleted(int64_t pk) { deleted_.insert(pk); }
  void markDeleted(const std::vector<int64_t>& pks) { deleted_.insert(pks.begin(), pks.end()); }
  /// Records that a change was lost because there is no database, so the next save reports it.
  void noteDropped() { dropped_ = true; }
  /// Clears the note of `noteDropped`; the loss has been reported.
  void forgetDropped() { dropped_ = false; }
  /// How many unsaved inserts went over kMaxPendingInserts since the last call; resets it.
  size_t takeOverflowed() { return std::exchange(overflowed_, 0); }

  /// Writes the changes in one transaction (joining one a burst has begun), many rows per
  /// statement. On failure fills `error`, rolls back and keeps the changes (deletes of rows that
  /// are gone meanwhile excepted); on success forgets them.
  bool commit(sqlite::Database& db, sqlite::Error& error);

 private:
  void dropInsert(std::deque<Row>::iterator row);
  // After a failed commit: drops pending deletes of rows that are not there.
  void forgetVanishedDeletes(sqlite::Database& db);

  std::deque<Row> inserted_;
  std::unordered_multiset<std::string> insertedIds_;
  std::unordered_set<int64_t> deleted_;
  bool dropped_ = false;
  size_t overflowed_ = 0;
};

}  // namespace vntr::store
