// The store's reads and trims: the newest requests for a batch, the start-up trims, the count
// and the id lookup. All run on the store queue.
#include <algorithm>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "store/EventDataManagerImpl.hpp"

namespace vntr {

using store::Row;

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
      rows.push_back(
          Row{pk, select.columnText(1), select.columnBlob(2), select.columnDouble(3), nullptr});
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
      merged.push_back(takeSaved ? std::move(rows[i++]) : pending[j++]->written());
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
  bool failed = !db_;
  const bool found = !failed && savedPk(id, failed).has_value();
  if (failed) Debug(VantrelLogLevel::warning, "Check ID search failed for " + id);
  return found;
}

std::optional<int64_t> EventDataManager::Impl::savedPk(const std::string& id, bool& failed) {
  failed = false;
  auto select = db_->statement(store::kSelectById);
  select.bind(1, store::idKey(id));
  select.bindText(2, id);
  // Enough rows to get past every pending delete.
  select.bind(3, static_cast<int64_t>(changes_.deletedCount()) + 1);
  for (;;) {
    switch (select.step()) {
      case sqlite::Statement::Step::row:
        if (const int64_t pk = select.columnInt64(0); !changes_.isDeleted(pk)) return pk;
        break;
      case sqlite::Statement::Step::done:
        return std::nullopt;
      case sqlite::Statement::Step::error:
        failed = true;
        return std::nullopt;
    }
  }
}

}  // namespace vntr
