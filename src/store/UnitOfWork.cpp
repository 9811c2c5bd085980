#include "store/UnitOfWork.hpp"

#include <sqlite3.h>

#include <algorithm>

namespace vntr::store {

void UnitOfWork::insert(Row row) {
  insertedIds_.insert(row.id);
  inserted_.push_back(std::move(row));
  if (inserted_.size() > kMaxPendingInserts) {
    dropInsert(inserted_.begin());
    ++overflowed_;
  }
}

void UnitOfWork::dropInsert(std::deque<Row>::iterator row) {
  insertedIds_.erase(insertedIds_.find(row->id));
  inserted_.erase(row);
}

bool UnitOfWork::dropInsert(int64_t pk) {
  const auto pending = std::lower_bound(inserted_.begin(), inserted_.end(), pk,
                                        [](const Row& row, int64_t key) { return row.pk < key; });
  if (pending == inserted_.end() || pending->pk != pk) return false;
  dropInsert(pending);
  return true;
}

void UnitOfWork::dropInsertsOlderThan(double cutoff) {
  for (auto row = inserted_.begin(); row != inserted_.end();) {
    if (row->timeStamp < cutoff) {
      insertedIds_.erase(insertedIds_.find(row->id));
      row = inserted_.erase(row);
    } else {
      ++row;
    }
  }
}

bool UnitOfWork::deleteNow(sqlite::Database& db, int64_t pk) {
  auto del = db.statement(kDelete);
  if (!del.bind(1, pk) || del.step() != sqlite::Statement::Step::done) return false;
  if (sqlite3_changes(db.handle()) > 0) deletedNow_.push_back(pk);
  return true;
}

void UnitOfWork::transactionEnded(bool committed) {
  if (!committed) deleted_.insert(deletedNow_.begin(), deletedNow_.end());
  deletedNow_.clear();
}

bool UnitOfWork::commit(sqlite::Database& db, sqlite::Error& error) {
  const auto fail = [&] {
    error = db.lastError();
    if (db.inTransaction()) db.exec("ROLLBACK");
    transactionEnded(false);
    return false;
  };
  // A burst may already have begun the transaction. A commit that only deletes answered
  // requests is not synced: the batch cycle waits for it, and a power cut can at worst send
  // them again; the next synced commit carries the log up to itself, those deletes included.
  if (!db.inTransaction() && !db.begin(!inserted_.empty())) return fail();
  for (const int64_t pk : deleted_) {
    auto del = db.statement(kDelete);
    del.bind(1, pk);
    if (del.step() != sqlite::Statement::Step::done) return fail();
  }
  std::string text;  // a request kept as parts is written out here, one at a time
  for (const auto& row : inserted_) {
    auto ins = db.statement(kInsert);
    const bool bound =
        ins.bindText(1, row.id) && ins.bindBlob(2, row.text(text)) && ins.bind(3, row.timeStamp);
    if (!bound || ins.step() != sqlite::Statement::Step::done) return fail();
  }
  if (!db.exec("COMMIT")) return fail();
  // New requests in a transaction begun without syncing (none are expected there): a checkpoint
  // syncs the log first, so they too are on stable storage before anyone hears of them.
  if (!db.durable() && !inserted_.empty()) db.exec("PRAGMA wal_checkpoint(PASSIVE)");
  inserted_.clear();
  insertedIds_.clear();
  deleted_.clear();
  transactionEnded(true);
  return true;
}

}  // namespace vntr::store
