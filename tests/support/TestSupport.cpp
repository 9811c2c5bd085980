#include "support/TestSupport.hpp"

#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <thread>

#include "core/MainQueue.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vntr-test-XXXXXX").string();
  char* made = mkdtemp(pattern.data());
  path_ = made != nullptr ? std::filesystem::path(made) : std::filesystem::path(pattern);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

CapturingLog::CapturingLog() : previousLevel_(VNTRPreferences::sharedPreferences().logLevel()) {
  drainMainQueue();  // messages from before this log was installed are not ours
  VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::verbose);
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [this](VantrelLogLevel level, const std::vector<std::string>& strings) {
        std::scoped_lock lock(mutex_);
        lines_.push_back(formatLogLine(level, strings));
      });
}

CapturingLog::~CapturingLog() {
  drainMainQueue();
  VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);
  VNTRPreferences::sharedPreferences().setLogLevel(previousLevel_);
}

std::vector<std::string> CapturingLog::lines() {
  drainMainQueue();
  std::scoped_lock lock(mutex_);
  return lines_;
}

size_t CapturingLog::count(const std::string& line) {
  const auto all = lines();
  return static_cast<size_t>(std::count(all.begin(), all.end(), line));
}

void CapturingLog::clear() {
  drainMainQueue();
  std::scoped_lock lock(mutex_);
  lines_.clear();
}

void drainMainQueue() {
  // Messages may post further messages; two rounds cover a log line logged from a log task.
  mainQueue().performAndWait([] {});
  mainQueue().performAndWait([] {});
}

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

int64_t rowsOnDisk(const std::filesystem::path& storeFile) {
  sqlite3* db = nullptr;
  int64_t rows = -1;
  if (sqlite3_open_v2(storeFile.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM SyncEvent", -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      rows = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close_v2(db);
  return rows;
}

}  // namespace vntr::test
