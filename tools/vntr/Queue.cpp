// vntr queue: what the request queue holds, read without changing it.
#include <sqlite3.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CliSupport.hpp"
#include "Commands.hpp"

namespace vntr::cli {

namespace {

using nlohmann::json;

constexpr const char* kStoreFileName = "requests_Data.sqlite";

struct Stored {
  std::string id;
  double timeStamp = 0;
  int64_t bytes = 0;
  std::string payload;  // only for --list
};

struct QueueReport {
  int64_t count = 0;
  int64_t totalBytes = 0;
  std::optional<Stored> oldest;
  std::optional<Stored> newest;
};

/// A read-only connection; never creates, migrates or trims anything.
class ReadOnlyDatabase {
 public:
  explicit ReadOnlyDatabase(const std::filesystem::path& file) {
    if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      error_ = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
      return;
    }
    sqlite3_busy_timeout(db_, 2000);  // the library may be committing right now
  }
  ~ReadOnlyDatabase() { sqlite3_close_v2(db_); }
  ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
  ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

  const std::optional<std::string>& error() const { return error_; }

  /// Runs `sql` and calls `row` for each result row; false (with error()) on failure.
  template <typename Row>
  bool query(const char* sql, Row&& row) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) {
      error_ = sqlite3_errmsg(db_);
      return false;
    }
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) row(statement);
    if (rc != SQLITE_DONE) error_ = sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
    return rc == SQLITE_DONE;
  }

 private:
  sqlite3* db_ = nullptr;
  std::optional<std::string> error_;
};

Stored readStored(sqlite3_stmt* statement) {
  Stored s;
  if (const auto* text = sqlite3_column_text(statement, 0)) {
    s.id.assign(reinterpret_cast<const char*>(text),
                static_cast<size_t>(sqlite3_column_bytes(statement, 0)));
  }
  s.timeStamp = sqlite3_column_double(statement, 1);
  s.bytes = sqlite3_column_int64(statement, 2);
  if (sqlite3_column_count(statement) > 3) {
    if (const auto* text = sqlite3_column_text(statement, 3)) {
      s.payload.assign(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(statement, 3)));
    }
  }
  return s;
}

// The oldest `limit` requests with their payloads, in sending order.
std::optional<std::vector<Stored>> readList(ReadOnlyDatabase& db, int64_t limit) {
  std::vector<Stored> list;
  const std::string sql =
      "SELECT id, timeStamp, LENGTH(jsonData), jsonData FROM SyncEvent "
      "ORDER BY timeStamp ASC, pk ASC LIMIT " +
      std::to_string(limit);
  if (!db.query(sql.c_str(), [&](sqlite3_stmt* s) { list.push_back(readStored(s)); })) {
    return std::nullopt;
  }
  return list;
}

std::optional<QueueReport> readQueue(ReadOnlyDatabase& db) {
  QueueReport report;
  // One read transaction, so the four answers describe the same moment.
  if (!db.query("BEGIN", [](sqlite3_stmt*) {})) return std::nullopt;
  const bool ok = db.query("SELECT COUNT(*), COALESCE(SUM(LENGTH(jsonData)), 0) FROM SyncEvent",
                           [&](sqlite3_stmt* s) {
                             report.count = sqlite3_column_int64(s, 0);
                             report.totalBytes = sqlite3_column_int64(s, 1);
                           }) &&
                  db.query(
                      "SELECT id, timeStamp, LENGTH(jsonData) FROM SyncEvent "
                      "ORDER BY timeStamp ASC, pk ASC LIMIT 1",
                      [&](sqlite3_stmt* s) { report.oldest = readStored(s); }) &&
                  db.query(
                      "SELECT id, timeStamp, LENGTH(jsonData) FROM SyncEvent "
                      "ORDER BY timeStamp DESC, pk DESC LIMIT 1",
                      [&](sqlite3_stmt* s) { report.newest = readStored(s); });
  db.query("COMMIT", [](sqlite3_stmt*) {});
  if (!ok) return std::nullopt;
  return report;
}

int64_t fileBytes(const std::filesystem::path& file) {
  int64_t total = 0;
  for (const char* suffix : {"", "-wal"}) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(file.string() + suffix, ec);
    if (!ec) total += static_cast<int64_t>(size);
  }
  return total;
}

// "timeStamp" as a date a person reads; the stored number stays as "timeStampRaw".
json storedJSON(const Stored& s) {
  json out = {{"id", s.id},
              {"timeStamp", formatReferenceDate(s.timeStamp, /*iso=*/true)},
              {"timeStampRaw", s.timeStamp},
              {"bytes", s.bytes}};
  if (!s.payload.empty()) {
    out["payload"] = json::parse(s.payload, nullptr, /*allow_exceptions=*/false);
    if (out["payload"].is_discarded()) out["payload"] = s.payload;  // shown as it is stored
  }
  return out;
}

json storedJSON(const std::optional<Stored>& s) { return s ? storedJSON(*s) : json(nullptr); }

std::string storedText(const Stored& s) {
  return formatReferenceDate(s.timeStamp) + "  id " + (s.id.empty() ? "(untracked)" : s.id) + "  " +
         withThousands(s.bytes) + " bytes";
}

void printText(const std::filesystem::path& file, const QueueReport& r) {
  std::printf("queue    %s\n", file.c_str());
  std::printf("count    %s request%s\n", withThousands(r.count).c_str(), r.count == 1 ? "" : "s");
  if (r.oldest) std::printf("oldest   %s\n", storedText(*r.oldest).c_str());
  if (r.newest) std::printf("newest   %s\n", storedText(*r.newest).c_str());
  std::printf("size     %s bytes of requests", withThousands(r.totalBytes).c_str());
  if (r.count > 0) std::printf(", %s on average", withThousands(r.totalBytes / r.count).c_str());
  std::printf("; file %s bytes\n", withThousands(fileBytes(file)).c_str());
}

void printList(const std::vector<Stored>& list, const QueueReport& r, bool asJSON) {
  if (asJSON) {
    json requests = json::array();
    for (const auto& s : list) requests.push_back(storedJSON(s));
    const json out = {{"count", r.count}, {"listed", list.size()}, {"requests", requests}};
    std::printf("%s\n", out.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    return;
  }
  for (const auto& s : list) std::printf("%s\n  %s\n", storedText(s).c_str(), s.payload.c_str());
  const auto more = r.count - static_cast<int64_t>(list.size());
  if (more > 0) std::printf("... and %s more (--limit)\n", withThousands(more).c_str());
}

}  // namespace

int runQueue(const QueueOptions& options) {
  const std::filesystem::path directory =
      options.dir.empty() ? defaultDocumentsDirectory() : std::filesystem::path(options.dir);
  const auto file = directory / kStoreFileName;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) {
    if (options.json) {
      std::printf("%s\n", json({{"path", file.string()}, {"exists", false}}).dump().c_str());
    } else {
      std::printf("no request queue at %s (nothing has been stored there)\n", file.c_str());
    }
    return kExitFailed;
  }
  ReadOnlyDatabase db(file);
  std::optional<QueueReport> report;
  if (!db.error()) report = readQueue(db);
  if (!report) {
    std::fprintf(stderr, "vntr queue: cannot read %s: %s\n", file.c_str(),
                 db.error().value_or("unknown error").c_str());
    return kExitFailed;
  }
  if (options.list) {
    const auto list = readList(db, options.limit);
    if (!list) {
      std::fprintf(stderr, "vntr queue: cannot read %s: %s\n", file.c_str(),
                   db.error().value_or("unknown error").c_str());
      return kExitFailed;
    }
    printList(*list, *report, options.json);
  } else if (options.json) {
    const json out = {{"path", file.string()},
                      {"exists", true},
                      {"count", report->count},
                      {"oldest", storedJSON(report->oldest)},
                      {"newest", storedJSON(report->newest)},
                      {"totalBytes", report->totalBytes},
                      {"averageBytes", report->count > 0 ? report->totalBytes / report->count : 0},
                      {"fileBytes", fileBytes(file)}};
    std::printf("%s\n", out.dump(2, ' ', false, json::error_handler_t::replace).c_str());
  } else {
    printText(file, *report);
  }
  return kExitOk;
}

}  // namespace vntr::cli
