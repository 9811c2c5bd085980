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
// SQLite picks the row id at the insert, under the write lock: processes sharing the file never
// pick the same one.
inline constexpr const char* kInsert =
    "INSERT INTO SyncEvent (id, jsonData, timeStamp) VALUES (?1, ?2, ?3)";
inline constexpr const char* kDelete = "DELETE FROM SyncEvent WHERE pk = ?1";

/// Every statement above that reads or writes rows; a database where one of them does not
/// prepare is not ours.
inline constexpr const char* kRowStatements[] = {
    kSelectNewest, kSelectOldest, kSelectOlderThan, kCount, kSelectById, kExists, kInsert, kDelete};

/// Unsaved inserts get keys from here upwards until their save gives them a row id; being
/// negative they never meet one.
inline constexpr int64_t kFirstProvisionalKey = INT64_MIN / 2;
inline bool isProvisional(int64_t pk) { return pk < 0; }

/// One stored request as the table holds it (`pk` provisional while unsaved).
struct Row {
  int64_t pk = 0;
  std::string id;
  std::string jsonData;
  double timeStamp = 0;
};

/// Queue order: by creation time, then by insertion (an unsaved insert came after every saved
/// row).
inline bool newerThan(double ts1, int64_t pk1, double ts2, int64_t pk2) {
  if (ts1 != ts2) return ts1 > ts2;
  const bool unsaved1 = isProvisional(pk1);
  return unsaved1 != isProvisional(pk2) ? unsaved1 : pk1 > pk2;
}

}  // namespace vntr::store
