#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "store/EventDataManager.hpp"
#include "store/Sqlite.hpp"

namespace vntr::store {

/// What the fallback chain ended with: the connection (null for `none`) and how it was got.
struct OpenedStore {
  std::unique_ptr<sqlite::Database> db;
  EventDataManager::StoreKind kind = EventDataManager::StoreKind::none;
};

/// Opens the queue in `documentsDirectory` (created when missing): the file as found; else,
/// unless another process holds it locked, a fresh file after deleting the broken one; else an
/// in-memory database; else nothing. Each step down is logged. Runs on the thread that will own
/// the connection.
OpenedStore openStore(const std::string& documentsDirectory,
                      const EventDataManager::AttemptFilter& allowed);

}  // namespace vntr::store
