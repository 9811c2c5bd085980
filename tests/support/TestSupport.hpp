#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

#include "Runtime.hpp"
#include "SandboxServer.hpp"

namespace httplib {
class Server;
}

namespace vntr::test {

/// True in builds instrumented by a sanitizer; they run several times slower, so the fault
/// tests scale their rounds down with `scaled`.
/// (GCC, the project's compiler, names both sanitizers in these macros.)
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

constexpr int scaled(int plain, int sanitized) { return kSanitized ? sanitized : plain; }

/// A sandbox whose getEvents answers pace batches `batchIntervalMs` apart (its default, 2 s,
/// would make tests wait), on `port` (0: any).
inline sandbox::SandboxConfig sandboxConfig(int64_t batchIntervalMs, int port = 0) {
  sandbox::SandboxConfig config;
  config.batchIntervalMs = batchIntervalMs;
  config.port = port;
  return config;
}

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

/// Installs a logging callback that records every message (or drops them all, when `keep` is
/// false, for tests that cause thousands on purpose); restores the default on destruction. A
/// keeping log sets the level to verbose meanwhile.
class CapturingLog {
 public:
  explicit CapturingLog(bool keep = true);
  ~CapturingLog();

  /// Waits until every message submitted so far has been delivered, then returns the lines,
  /// each as "[Level] pieces,joined".
  std::vector<std::string> lines();
  /// How many delivered lines equal `line`; with `prefix`, how many start with it.
  size_t count(const std::string& line, bool prefix = false);
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

/// The whole file, or "" when it cannot be read.
std::string readFile(const std::filesystem::path& file);

/// Writes the site ID property list (site ID "12345") a host ships next to its executable.
void writeSiteID(const std::filesystem::path& bundleDirectory);

/// The data directory of a host: "bundle" (site ID), "documents" (the store),
/// "config/defaults.json" (user defaults).
struct HostLayout {
  explicit HostLayout(std::filesystem::path root);
  ProcessPaths paths() const { return {bundle, documents, defaults}; }
  std::filesystem::path root, bundle, documents, defaults, store;
};

/// What a store file holds, read through a connection of the test's own (which also recovers a
/// write-ahead log left behind by a killed writer).
struct StoreContents {
  bool opened = false;
  std::string integrity;  // the rows of PRAGMA integrity_check joined by "\n"; "ok" when sound
  int64_t rows = 0;
  std::set<int64_t> sequences;  // the "seq" of every stored request's eventData that has one
  std::string error;
};
StoreContents readStore(const std::filesystem::path& storeFile);

/// The requests committed to the store file (changes not saved yet do not count); -1 when the
/// file cannot be read.
int64_t rowsOnDisk(const std::filesystem::path& storeFile);

/// The "seq" member of a stored or received request's eventData, if any.
std::optional<int64_t> sequenceOf(const nlohmann::json& request);

/// Records delegate notifications: a running total per statistic, and (when `keepCalls`) every
/// call in order. Thread-safe.
class RecordingDelegate final : public VNTRTagManagerDelegate {
 public:
  explicit RecordingDelegate(bool keepCalls = true) : keepCalls_(keepCalls) {}
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override;
  /// The statistics notified, in order.
  std::vector<int64_t> statistics() const;
  int64_t total(int64_t statistic) const;
  int64_t operator[](VNTRStatistic statistic) const { return total(statistic.rawValue()); }
  /// Batches that have ended, either way.
  int64_t finishedBatches() const;
  void clear();

 private:
  const bool keepCalls_;
  std::array<std::atomic<int64_t>, 10> totals_{};
  mutable std::mutex mutex_;
  std::vector<int64_t> calls_;  // guarded by mutex_
};

/// A certificate and key made at test time by the openssl program.
struct SelfSignedCertificate {
  std::filesystem::path certificate, key;
};

/// An HTTP server (HTTPS with `tls`) on 127.0.0.1, port picked by the OS, serving on a thread of
/// its own; the routes are set up by `routes` before it starts. Its port is 0 if it could not.
/// Counts the requests it read (with a certificate no client trusts, none should get through).
class LoopbackServer {
 public:
  explicit LoopbackServer(const std::function<void(httplib::Server&)>& routes,
                          const SelfSignedCertificate* tls = nullptr);
  ~LoopbackServer();
  int port() const { return port_; }
  std::string url(const std::string& path) const;
  int64_t requests() const { return requests_.load(); }

 private:
  std::atomic<int64_t> requests_{0};
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace vntr::test
