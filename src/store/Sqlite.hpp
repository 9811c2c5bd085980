#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace vntr::sqlite {

/// What went wrong in one SQLite call: the result code and SQLite's own message.
struct Error {
  int code = 0;
  int extendedCode = 0;
  std::string message;
};

/// One cached prepared statement, borrowed for a single use. Binds values by parameter
/// position (1-based); the destructor resets the statement and clears its bindings, so the next
/// user starts clean. SQL text is always fixed: values go in through the bind calls only. Bound
/// text and blobs are not copied: they must stay unchanged while the statement is borrowed.
class Statement {
 public:
  enum class Step { row, done, error };

  Statement(sqlite3* db, sqlite3_stmt* stmt) : db_(db), stmt_(stmt) {}
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&&) = delete;

  /// False when the statement could not be prepared; every call below then fails.
  explicit operator bool() const { return stmt_ != nullptr; }

  bool bind(int index, int64_t value);
  bool bind(int index, double value);
  bool bindText(int index, std::string_view value);
  bool bindBlob(int index, std::string_view value);

  Step step();

  int64_t columnInt64(int column) const;
  double columnDouble(int column) const;
  std::string columnText(int column) const;
  std::string columnBlob(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_;
};

/// One open connection. Not thread-safe: the owner confines it to one queue. Prepared
/// statements are cached for the life of the connection and finalised when it closes.
class Database {
 public:
  /// Opens `filename` with the sqlite3_open_v2 `flags`; on failure returns null and fills
  /// `error` (the half-open handle is closed).
  static std::unique_ptr<Database> open(const std::string& filename, int flags, Error& error);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Runs fixed SQL that takes no values (schema, pragmas, transaction control).
  bool exec(const char* sql);
  /// The cached statement for the fixed text `sql`, prepared on first use. Check it with
  /// `operator bool`: a statement that cannot be prepared yields an empty one. Statements are
  /// cached by the address of their text: pass string constants only.
  Statement statement(const char* sql);

  /// The error of the most recent failing call on this connection.
  Error lastError() const;
  /// True while a transaction begun with BEGIN is open.
  bool inTransaction() const;
  /// Begins a write transaction (BEGIN IMMEDIATE) whose commit waits until the log is on stable
  /// storage (`durable`, synchronous=FULL) or not (NORMAL). SQLite takes that setting only
  /// between transactions, so it is chosen here.
  bool begin(bool durable);
  /// Whether commits sync: the choice of the last `begin`.
  bool durable() const { return durable_; }
  sqlite3* handle() const { return db_; }

 private:
  explicit Database(sqlite3* db) : db_(db) {}

  sqlite3* db_;
  bool durable_ = true;  // SQLite's default, synchronous=FULL
  // A dozen statements, looked up several times per event: a short list beats hashing the text.
  std::vector<std::pair<const char*, sqlite3_stmt*>> cache_;
};

}  // namespace vntr::sqlite
