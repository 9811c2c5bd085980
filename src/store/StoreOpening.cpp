#include "store/StoreOpening.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/VNTRDebug.hpp"
#include "platform/linux/Files.hpp"
#include "store/StoreStatements.hpp"

namespace vntr::store {
namespace {

using StoreKind = EventDataManager::StoreKind;

constexpr const char* kStoreFileName = "requests_Data.sqlite";

// Creates the store file readable by the user only before SQLite opens it; SQLite gives its
// -wal and -shm companions the same mode.
bool prepareStoreFile(const std::string& path) {
  if (isDirectory(path)) return false;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  (void)::fchmod(fd, 0600);
  ::close(fd);
  return true;
}

// vntr_id_key(id) in SQL, for filling the keys of rows an earlier version wrote.
void idKeyFunction(sqlite3_context* context, int, sqlite3_value** args) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(args[0]));
  const int size = sqlite3_value_bytes(args[0]);
  sqlite3_result_int64(
      context, idKey(std::string_view(text != nullptr ? text : "", text != nullptr ? size : 0)));
}

// Whether rows lack their id key: 1 when some do, 0 when none do, -1 when the table has no key
// column. Run once, so the statement is not kept among the connection's.
int rowsWithoutIdKey(sqlite::Database& db) {
  bool some = false;
  const auto found = [](void* flag, int, char**, char**) {
    *static_cast<bool*>(flag) = true;
    return 0;
  };
  if (sqlite3_exec(db.handle(), kAnyWithoutIdKey, found, &some, nullptr) != SQLITE_OK) return -1;
  return some ? 1 : 0;
}

// Gives a store written by an earlier version its id key: the column, once, and the key of every
// row without one (an earlier version sharing the file still inserts those). In one write
// transaction, which a second process opening the same file at once waits for.
bool addIdKeys(sqlite::Database& db) {
  if (sqlite3_create_function(db.handle(), "vntr_id_key", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                              nullptr, idKeyFunction, nullptr, nullptr) != SQLITE_OK) {
    return false;
  }
  if (rowsWithoutIdKey(db) == 0) return true;
  if (!db.exec("BEGIN IMMEDIATE")) return false;
  const int state = rowsWithoutIdKey(db);
  if (state == 0) return db.exec("COMMIT");
  if ((state > 0 || db.exec(kAddIdKey)) && db.exec(kFillIdKeys) && db.exec("COMMIT")) {
    Debug(VantrelLogLevel::info,
          "Event store: gave the requests of an earlier version their id keys");
    return true;
  }
  db.exec("ROLLBACK");
  return false;
}

// Connection settings and the schema; reports false when the database is unusable, so a
// broken file is found now rather than at the first batch.
bool prepareDatabase(sqlite::Database& db, bool onDisk) {
  sqlite3_busy_timeout(db.handle(), 2000);
  if (onDisk) {
    // A new file gets 8 KiB pages (an existing one keeps its own): a request is about 600 bytes,
    // and pages that hold twice as many split half as often and make a shallower tree.
    db.exec("PRAGMA page_size=8192");
    {
      auto mode = db.statement("PRAGMA journal_mode=WAL");
      if (!mode || mode.step() != sqlite::Statement::Step::row) return false;
    }
    // Every commit holding new requests reaches stable storage before it returns: eventCreated
    // follows it and must survive a power cut. Commits are batched, one sync per commit.
    if (!db.exec("PRAGMA synchronous=FULL")) return false;
    // 96 KiB: the work touches the two ends of the table and of the time index, and a path
    // through the id-key index; the rest sits in the kernel's page cache, one pread away. With
    // the small key index this stores as fast as 256 KiB did with whole ids (about 50,000 a
    // second) and holds 0.15 MiB less at the peak; at 64 KiB the batch cycle's deletes read
    // about a page per request from the file.
    db.exec("PRAGMA cache_size=-96");
    // Debian builds SQLite to zero every deleted byte, about 2,000 instructions per answered
    // request here. A deleted request is one the server has, in a file only its owner reads, and
    // the space is soon reused by the next ones: SQLite's own default is kept instead.
    db.exec("PRAGMA secure_delete=OFF");
    // main only: checking every schema opens the temp database too, whose page cache then holds
    // about 170 KiB for the connection's lifetime.
    auto check = db.statement("PRAGMA main.quick_check");
    if (!check || check.step() != sqlite::Statement::Step::row || check.columnText(0) != "ok") {
      return false;
    }
  }
  if (!db.exec(kCreateTable) || !addIdKeys(db) || !db.exec(kCreateTimeStampIndex) ||
      !db.exec(kCreateIdKeyIndex) || !db.exec(kDropWholeIdIndex)) {
    return false;
  }
  // A table of the same name with other columns is not ours: every statement must prepare.
  for (const char* sql : kRowStatements) {
    if (!db.statement(sql)) return false;
  }
  return true;
}

// Deletes the broken store file. Its -wal, -shm and -journal companions go too: a stale
// write-ahead log would otherwise be replayed into the new, empty database.
bool deleteStoreFile(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
  if (::unlink(path.c_str()) != 0) return false;
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    (void)::unlink((path + suffix).c_str());
  }
  return true;
}

// One step of the chain. `lockedByOther` tells the caller the step failed on another
// connection's lock rather than on the file.
bool attempt(StoreKind kind, const std::string& path,
             const EventDataManager::AttemptFilter& allowed, OpenedStore& out,
             bool& lockedByOther) {
  lockedByOther = false;
  if (allowed && !allowed(kind)) return false;
  const bool onDisk = kind != StoreKind::memory;
  if (onDisk && !prepareStoreFile(path)) return false;
  sqlite::Error error;
  auto db =
      onDisk ? sqlite::Database::open(
                   path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, error)
             : sqlite::Database::open(
                   ":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                   error);
  if (!db) return false;
  const auto fail = [&] {
    const int code = db->lastError().code;
    lockedByOther = code == SQLITE_BUSY || code == SQLITE_LOCKED;
    return false;
  };
  if (!prepareDatabase(*db, onDisk)) return fail();
  out.db = std::move(db);
  out.kind = kind;
  return true;
}

}  // namespace

OpenedStore openStore(const std::string& documentsDirectory,
                      const EventDataManager::AttemptFilter& allowed) {
  OpenedStore out;
  bool lockedByOther = false;
  // No directory: there was no private place on disk for the queue (see processPaths).
  const auto path = documentsDirectory.empty() ? documentsDirectory
                                               : joinPath(documentsDirectory, kStoreFileName);
  if (!path.empty()) {
    // Made again if something removed it since the library's first use; a failure shows at
    // the open below.
    (void)createPrivateDirectories(documentsDirectory);
    if (attempt(StoreKind::sqlite, path, allowed, out, lockedByOther)) return out;
    Debug(VantrelLogLevel::error,
          "Failed to initialize the event store.  Attempting to create new store.");
    // A file another process keeps locked is not broken: it is left alone, not deleted.
    if (!lockedByOther && deleteStoreFile(path) &&
        attempt(StoreKind::recreated, path, allowed, out, lockedByOther)) {
      return out;
    }
  }
  Debug(VantrelLogLevel::error,
        "Failed to initialize new event store.  Will attempt in memory storage.");
  if (attempt(StoreKind::memory, path, allowed, out, lockedByOther)) return out;
  Debug(VantrelLogLevel::fatal,
        "Failed to initialize new in memory store.  We are out of options.");
  return out;
}

}  // namespace vntr::store
