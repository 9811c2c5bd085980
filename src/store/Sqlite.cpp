#include "store/Sqlite.hpp"

#include <sqlite3.h>

#include <limits>

namespace vntr::sqlite {

Statement::~Statement() {
  if (stmt_ == nullptr) return;
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

Statement::Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
  other.stmt_ = nullptr;
}

bool Statement::bind(int index, int64_t value) {
  return stmt_ != nullptr && sqlite3_bind_int64(stmt_, index, value) == SQLITE_OK;
}

bool Statement::bind(int index, double value) {
  return stmt_ != nullptr && sqlite3_bind_double(stmt_, index, value) == SQLITE_OK;
}

bool Statement::bindText(int index, std::string_view value) {
  if (stmt_ == nullptr || value.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return false;
  }
  return sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                           SQLITE_STATIC) == SQLITE_OK;
}

bool Statement::bindBlob(int index, std::string_view value) {
  if (stmt_ == nullptr || value.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return false;
  }
  // A zero-length blob with a null pointer would be stored as NULL; keep it a blob.
  static constexpr char kEmpty = 0;
  const char* data = value.empty() ? &kEmpty : value.data();
  return sqlite3_bind_blob(stmt_, index, data, static_cast<int>(value.size()), SQLITE_STATIC) ==
         SQLITE_OK;
}

Statement::Step Statement::step() {
  if (stmt_ == nullptr) return Step::error;
  switch (sqlite3_step(stmt_)) {
    case SQLITE_ROW:
      return Step::row;
    case SQLITE_DONE:
      return Step::done;
    default:
      return Step::error;
  }
}

int64_t Statement::columnInt64(int column) const { return sqlite3_column_int64(stmt_, column); }

double Statement::columnDouble(int column) const { return sqlite3_column_double(stmt_, column); }

std::string Statement::columnText(int column) const {
  const auto* text = sqlite3_column_text(stmt_, column);
  const int size = sqlite3_column_bytes(stmt_, column);
  if (text == nullptr || size <= 0) return {};
  return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

std::string Statement::columnBlob(int column) const {
  const void* blob = sqlite3_column_blob(stmt_, column);
  const int size = sqlite3_column_bytes(stmt_, column);
  if (blob == nullptr || size <= 0) return {};
  return std::string(static_cast<const char*>(blob), static_cast<size_t>(size));
}

std::unique_ptr<Database> Database::open(const std::string& filename, int flags, Error& error) {
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(filename.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    error.code = rc & 0xff;
    error.extendedCode = rc;
    error.message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);  // a handle is returned even on most failures; null is harmless
    return nullptr;
  }
  sqlite3_extended_result_codes(db, 1);
  return std::unique_ptr<Database>(new Database(db));
}

Database::~Database() {
  for (auto& [sql, stmt] : cache_) sqlite3_finalize(stmt);
  sqlite3_close_v2(db_);
}

bool Database::exec(const char* sql) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement Database::statement(const char* sql) {
  for (const auto& [text, stmt] : cache_) {
    if (text == sql) return Statement(db_, stmt);
  }
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return Statement(db_, nullptr);
  }
  cache_.emplace_back(sql, stmt);
  return Statement(db_, stmt);
}

Error Database::lastError() const {
  const int extended = sqlite3_extended_errcode(db_);
  return Error{extended & 0xff, extended, sqlite3_errmsg(db_)};
}

bool Database::inTransaction() const { return sqlite3_get_autocommit(db_) == 0; }

bool Database::begin(bool durable) {
  if (durable != durable_ &&
      exec(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL")) {
    durable_ = durable;
  }
  return exec("BEGIN IMMEDIATE");
}

}  // namespace vntr::sqlite
