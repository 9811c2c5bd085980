#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

namespace vntr::test {

/// A fresh directory under the system's temporary directory, removed on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

/// Installs a logging callback that records every message; restores the default on
/// destruction. Sets the log level to verbose for its lifetime.
class CapturingLog {
 public:
  CapturingLog();
  ~CapturingLog();
  CapturingLog(const CapturingLog&) = delete;
  CapturingLog& operator=(const CapturingLog&) = delete;

  /// Waits until every message submitted so far has been delivered, then returns the lines,
  /// each as "[Level] pieces,joined".
  std::vector<std::string> lines();
  /// How many delivered lines equal `line`.
  size_t count(const std::string& line);
  void clear();

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  VantrelLogLevel previousLevel_;
};

/// Waits until every task already posted to the main queue has run.
void drainMainQueue();

/// Polls `predicate` until it holds or `timeout` passes; returns its last value.
bool waitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// The requests committed to the store file, read through a connection of its own (so changes
/// a store has not saved yet do not count); -1 when the file cannot be read.
int64_t rowsOnDisk(const std::filesystem::path& storeFile);

}  // namespace vntr::test
