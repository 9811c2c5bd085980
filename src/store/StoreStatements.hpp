#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vntr::store {

// The queue's one table and every statement the store runs on it. The text is fixed: values go
// in through bound parameters only.

inline constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS SyncEvent (pk INTEGER PRIMARY KEY, id TEXT, jsonData BLOB, "
    "timeStamp REAL NOT NULL DEFAULT 0, idKey INTEGER)";
inline constexpr const char* kCreateTimeStampIndex =
    "CREATE INDEX IF NOT EXISTS SyncEvent_timeStamp ON SyncEvent (timeStamp)";
// Ids are random, so every insert, lookup and delete lands on a random page of their index. The
// index holds a 4-byte key of the id instead of its 36 characters: a third of the pages, which
// the page cache can then hold.
inline constexpr const char* kCreateIdKeyIndex =
    "CREATE INDEX IF NOT EXISTS SyncEvent_idKey ON SyncEvent (idKey)";
// Earlier versions indexed the whole id; a store they wrote (or still write, sharing the file)
// has that index and rows without a key.
inline constexpr const char* kAddIdKey = "ALTER TABLE SyncEvent ADD COLUMN idKey INTEGER";
inline constexpr const char* kDropWholeIdIndex = "DROP INDEX IF EXISTS SyncEvent_id";
inline constexpr const char* kAnyWithoutIdKey =
    "SELECT 1 FROM SyncEvent WHERE idKey IS NULL LIMIT 1";
inline constexpr const char* kFillIdKeys =
    "UPDATE SyncEvent SET idKey = vntr_id_key(id) WHERE idKey IS NULL";

inline constexpr const char* kSelectNewest =
    "SELECT pk, id, jsonData, timeStamp FROM SyncEvent ORDER BY timeStamp DESC, pk DESC LIMIT ?1";
inline constexpr const char* kSelectOldest =
    "SELECT pk, timeStamp FROM SyncEvent ORDER BY timeStamp ASC, pk ASC LIMIT ?1";
inline constexpr const char* kSelectOlderThan = "SELECT pk FROM SyncEvent WHERE timeStamp < ?1";
inline constexpr const char* kCount = "SELECT COUNT(*) FROM SyncEvent";
inline constexpr const char* kSelectById =
    "SELECT pk FROM SyncEvent WHERE idKey = ?1 AND id = ?2 LIMIT ?3";
inline constexpr const char* kExists = "SELECT 1 FROM SyncEvent WHERE pk = ?1";
// SQLite picks the row id at the insert, under the write lock: processes sharing the file never
// pick the same one.
inline constexpr const char* kInsert =
    "INSERT INTO SyncEvent (id, idKey, jsonData, timeStamp) VALUES (?1, ?2, ?3, ?4)";
// A commit writes many rows per statement: each statement run opens and frees its cursors (this
// SQLite has no lookaside memory), which cost about as much as a row.
inline constexpr size_t kRowsPerInsert = 16;
inline constexpr size_t kRowsPerDelete = 64;
namespace detail {
inline std::string repeated(std::string_view head, std::string_view item, std::string_view tail,
                            size_t count) {
  std::string text(head);
  for (size_t i = 0; i < count; ++i) (text += i > 0 ? "," : "") += item;
  return text += tail;
}
// Built once and never freed: statements are cached by the address of their text.
inline const std::string& insertManyText() {
  static const auto* const text =
      new std::string(repeated("INSERT INTO SyncEvent (id, idKey, jsonData, timeStamp) VALUES ",
                               "(?,?,?,?)", "", kRowsPerInsert));
  return *text;
}
inline const std::string& deleteManyText() {
  static const auto* const text =
      new std::string(repeated("DELETE FROM SyncEvent WHERE pk IN (", "?", ")", kRowsPerDelete));
  return *text;
}
}  // namespace detail
inline const char* const kInsertMany = detail::insertManyText().c_str();
inline const char* const kDeleteMany = detail::deleteManyText().c_str();

/// Every statement above that reads or writes rows; a database where one of them does not
/// prepare is not ours.
inline const char* const kRowStatements[] = {kSelectNewest, kSelectOldest, kSelectOlderThan,
                                             kCount,        kSelectById,   kExists,
                                             kInsert,       kInsertMany,   kDeleteMany};

/// The id's index key: FNV-1a of its bytes, as a signed 32-bit value so the row and the index
/// store it in 4 bytes. Different ids may share a key; a lookup compares the id too.
inline int64_t idKey(std::string_view id) {
  uint32_t hash = 2166136261u;
  for (const char c : id) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  return static_cast<int32_t>(hash);
}

/// Unsaved inserts get keys from here upwards until their save gives them a row id; being
/// negative they never meet one.
inline constexpr int64_t kFirstProvisionalKey = INT64_MIN / 2;
inline bool isProvisional(int64_t pk) { return pk < 0; }

/// Writes a request's JSON text from the parts that differ from one request to the next; one
/// is shared by every request built from the same device facts. A request waiting for its save
/// keeps only its parts, about a fifth of its text, and is written out when the save (or a
/// batch) needs it.
class RequestWriter {
 public:
  virtual ~RequestWriter() = default;
  /// Appends the text made from `parts` to `out`.
  virtual void write(std::string_view parts, std::string& out) const = 0;
};

/// One stored request as the table holds it (`pk` provisional while unsaved).
struct Row {
  int64_t pk = 0;
  std::string id;
  std::string jsonData;  // the request's text, or its parts while `writer` is set
  double timeStamp = 0;
  std::shared_ptr<const RequestWriter> writer;

  /// The request's text; `buffer` holds it when it is written out from parts.
  std::string_view text(std::string& buffer) const {
    if (!writer) return jsonData;
    buffer.clear();
    writer->write(jsonData, buffer);
    return buffer;
  }
  /// The row with its text written out.
  Row written() const {
    std::string buffer;
    const auto full = text(buffer);
    return Row{pk, id, writer ? std::move(buffer) : std::string(full), timeStamp, nullptr};
  }
};

/// Queue order: by creation time, then by insertion (an unsaved insert came after every saved
/// row).
inline bool newerThan(double ts1, int64_t pk1, double ts2, int64_t pk2) {
  if (ts1 != ts2) return ts1 > ts2;
  const bool unsaved1 = isProvisional(pk1);
  return unsaved1 != isProvisional(pk2) ? unsaved1 : pk1 > pk2;
}

}  // namespace vntr::store
