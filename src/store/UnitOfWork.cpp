#include "store/UnitOfWork.hpp"

#include <algorithm>
#include <iterator>

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

namespace {

// Deletes `pks` in statements of up to kRowsPerDelete rows; unused parameters stay NULL and match
// nothing.
template <class Pks>
bool deleteRows(sqlite::Database& db, const Pks& pks) {
  auto pk = pks.begin();
  while (pk != pks.end()) {
    auto del = db.statement(kDeleteMany);
    for (int param = 1; param <= static_cast<int>(kRowsPerDelete) && pk != pks.end(); ++param) {
      del.bind(param, *pk++);
    }
    if (del.step() != sqlite::Statement::Step::done) return false;
  }
  return true;
}

// Inserts `rows` kRowsPerInsert at a time, the rest one by one. Requests kept as parts are
// written out into `texts`, one buffer per row of a statement, as SQLite reads them at the step.
bool insertRows(sqlite::Database& db, const std::deque<Row>& rows,
                std::vector<std::string>& texts) {
  texts.resize(kRowsPerInsert);
  auto row = rows.begin();
  while (row != rows.end()) {
    const bool many = rows.end() - row >= static_cast<std::ptrdiff_t>(kRowsPerInsert);
    auto ins = db.statement(many ? kInsertMany : kInsert);
    const size_t count = many ? kRowsPerInsert : 1;
    for (size_t i = 0; i < count; ++i, ++row) {
      const int first = static_cast<int>(4 * i) + 1;
      if (!ins.bindText(first, row->id) || !ins.bind(first + 1, idKey(row->id)) ||
          !ins.bindBlob(first + 2, row->text(texts[i])) || !ins.bind(first + 3, row->timeStamp)) {
        return false;
      }
    }
    if (ins.step() != sqlite::Statement::Step::done) return false;
  }
  return true;
}

}  // namespace

bool UnitOfWork::commit(sqlite::Database& db, sqlite::Error& error) {
  const auto fail = [&] {
    error = db.lastError();
    if (db.inTransaction()) db.exec("ROLLBACK");
    forgetVanishedDeletes(db);
    return false;
  };
  // A burst may already have begun the transaction. A commit that only deletes answered
  // requests is not synced: the batch cycle waits for it, and a power cut can at worst send
  // them again; the next synced commit carries the log up to itself, those deletes included.
  if (!db.inTransaction() && !db.begin(!inserted_.empty())) return fail();
  thread_local std::vector<std::string> texts;
  if (!deleteRows(db, deleted_) || !insertRows(db, inserted_, texts)) return fail();
  if (!db.exec("COMMIT")) return fail();
  // New requests in a transaction begun without syncing (none are expected there): a checkpoint
  // syncs the log first, so they too are on stable storage before anyone hears of them.
  if (!db.durable() && !inserted_.empty()) db.exec("PRAGMA wal_checkpoint(PASSIVE)");
  inserted_.clear();
  insertedIds_.clear();
  deleted_.clear();
  return true;
}

void UnitOfWork::forgetVanishedDeletes(sqlite::Database& db) {
  // Deletes noted inside a transaction were not looked up (see EventDataManager::remove); those
  // that stay pending must be of rows that exist, or the count would be short.
  for (auto pk = deleted_.begin(); pk != deleted_.end();) {
    auto exists = db.statement(kExists);
    exists.bind(1, *pk);
    pk = exists.step() == sqlite::Statement::Step::row ? std::next(pk) : deleted_.erase(pk);
  }
}

}  // namespace vntr::store
