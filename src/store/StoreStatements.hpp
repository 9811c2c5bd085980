#pragma once

#include <cstdint>
#include <string>

namespace vntr::store {

// The queue's one table and every statement the store runs on it. The text is fixed: values go
// in through bound parameters only.

inline constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS SyncEvent (pk INTEGER PRIMARY KEY, id TEXT, jsonData BLOB, "
    "timeStamp REAL NOT NULL DEFAULT 0)";
inline constexpr const char* kCreateTimeStampIndex =
    "CREATE INDEX IF NOT EXISTS SyncEvent_timeStamp ON SyncEvent (timeStamp)";
inline constexpr const char* kCreateIdIndex =
    "CREATE INDEX IF NOT EXISTS SyncEvent_id ON SyncEvent (id)";

inline constexpr const char* kSelectNewest =
    "SELECT pk, id, jsonData, timeStamp FROM SyncEvent ORDER BY timeStamp DESC, pk DESC LIMIT ?1";
inline constexpr const char* kSelectOldest =
    "SELECT pk, timeStamp FROM SyncEvent ORDER BY timeStamp ASC, pk ASC LIMIT ?1";
inline constexpr const char* kSelectOlderThan = "SELECT pk FROM SyncEvent WHERE timeStamp < ?1";
inline constexpr const char* kCount = "SELECT COUNT(*) FROM SyncEvent";
inline constexpr const char* kSelectById = "SELECT pk FROM SyncEvent WHERE id = ?1 LIMIT ?2";
inline constexpr const char* kExists = "SELECT 1 FROM SyncEvent WHERE pk = ?1";
inline constexpr const char* kMaxPk = "SELECT MAX(pk) FROM SyncEvent";
inline constexpr const char* kInsert =
    "INSERT INTO SyncEvent (pk, id, jsonData, timeStamp) VALUES (?1, ?2, ?3, ?4)";
inline constexpr const char* kDelete = "DELETE FROM SyncEvent WHERE pk = ?1";

/// Every statement above that reads or writes rows; a database where one of them does not
/// prepare is not ours.
inline constexpr const char* kRowStatements[] = {kSelectNewest, kSelectOldest, kSelectOlderThan,
                                                 kCount,        kSelectById,   kExists,
                                                 kMaxPk,        kInsert,       kDelete};

/// One stored request as the table holds it.
struct Row {
  int64_t pk = 0;
  std::string id;
  std::string jsonData;
  double timeStamp = 0;
};

/// Queue order: by creation time, then by insertion.
inline bool newerThan(double ts1, int64_t pk1, double ts2, int64_t pk2) {
  return ts1 != ts2 ? ts1 > ts2 : pk1 > pk2;
}

}  // namespace vntr::store
