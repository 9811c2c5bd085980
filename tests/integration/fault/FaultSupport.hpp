#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

namespace vntr {
class Runtime;
}

namespace vntr::sandbox {
class SandboxServer;
}

namespace vntr::test {

/// True in builds instrumented by a sanitizer. They run several times slower, so the fault
/// tests scale their rounds down with `scaled`.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

constexpr int scaled(int plain, int sanitized) { return kSanitized ? sanitized : plain; }

/// The host program the fault tests start, kill and watch (tests/integration/fault/FaultChild.cpp).
std::string faultChildProgram();

/// A program started with fork and exec; killed and reaped by the destructor if still running.
/// Its standard output and error go to files (or /dev/null), every other descriptor of the test
/// is closed in it, and it is killed when the test process dies.
class ChildProcess {
 public:
  struct Options {
    std::vector<std::string> arguments;  // arguments[0] is the program's path
    std::filesystem::path stdoutFile;    // empty: /dev/null
    std::filesystem::path stderrFile;    // empty: /dev/null
    bool pipeStdin = false;              // the test writes to the child's standard input
    std::optional<uid_t> runAs;          // user (and group) id to drop to before exec
    std::optional<mode_t> umask;
    /// "NAME=value" entries added to (or replacing those of) the test's environment.
    std::vector<std::string> environment;
  };

  explicit ChildProcess(const Options& options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  /// SIGKILL, then reaps it.
  void kill();
  /// Waits up to `timeout` for the child to end; its wait status, or nothing on timeout.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  bool writeStdin(const std::string& text);
  void closeStdin();

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  std::optional<int> status_;
};

/// The options for running `arguments` with standard error going to `stderrFile`. Under
/// ThreadSanitizer the child sleeps 100 ms at exit (while its other threads go on, where races
/// at exit show) instead of the default 1 s.
ChildProcess::Options command(std::vector<std::string> arguments,
                              std::filesystem::path stderrFile = {});

/// "exited with 0", "exited with 3", "killed by signal 6": for failure messages.
std::string describeWaitStatus(int status);

/// The whole file, or "" when it cannot be read.
std::string readFile(const std::filesystem::path& file);

/// True when `text` holds a report of AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer
/// or ThreadSanitizer.
bool hasSanitizerReport(const std::string& text);

/// Writes the site ID property list a host ships next to its executable.
void writeSiteID(const std::filesystem::path& bundleDirectory);

/// The data directory of a child host: "bundle" (site ID), "documents" (the store),
/// "config/defaults.json" (user defaults).
struct HostLayout {
  explicit HostLayout(std::filesystem::path root);
  std::filesystem::path root, bundle, documents, defaults, store;
};

/// The largest count the child wrote to its report file (one decimal number per line; an
/// unfinished last line is ignored, as the child may have been killed while writing it).
int64_t readReportedCount(const std::filesystem::path& reportFile);

/// What a store file holds, read through a connection of the test's own (which also recovers a
/// write-ahead log left behind by a killed writer).
struct StoreContents {
  bool exists = false;
  bool opened = false;
  std::string integrity;  // the rows of PRAGMA integrity_check joined by "\n"; "ok" when sound
  int64_t rows = 0;
  std::set<int64_t> sequences;  // the "seq" of every stored request's eventData that has one
  std::string error;
};
StoreContents readStore(const std::filesystem::path& storeFile);

/// The "seq" member of a stored or received request's eventData, if any.
std::optional<int64_t> sequenceOf(const nlohmann::json& request);

/// What the fault tests know about their events, which carry eventData {"seq": n}: which were
/// saved (reported by a child after each eventCreated) and which the server answered (recorded
/// by the sandbox before the answer leaves). Every saved request without an answer must still be
/// in the store. Thread-safe.
class EventLedger {
 public:
  /// Records the answers of `server` from now on (replaces its batch observer).
  void attach(sandbox::SandboxServer& server);
  void addSaved(int64_t firstSeq, int64_t count);
  void addAnswered(int64_t seq);
  size_t savedCount() const;
  size_t answeredCount() const;
  int64_t batches() const { return batches_.load(); }
  /// Saved requests without an answer (in order).
  std::vector<int64_t> owed() const;
  /// Saved requests without an answer, numbered from `firstSeq` on, that `contents` lacks.
  std::vector<int64_t> missingFrom(const StoreContents& contents, int64_t firstSeq = 0) const;

 private:
  mutable std::mutex mutex_;
  std::set<int64_t> saved_;     // guarded by mutex_
  std::set<int64_t> answered_;  // guarded by mutex_
  std::atomic<int64_t> batches_{0};
};

/// Counts every statistic the library reports.
class CountingDelegate final : public VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override;
  int64_t operator[](VNTRStatistic statistic) const;
  /// Batches that have ended, either way.
  int64_t finishedBatches() const;

 private:
  std::array<std::atomic<int64_t>, 10> counts_{};
};

/// A CountingDelegate installed as the process's delegate while this lives.
class InstalledCounter {
 public:
  InstalledCounter();
  ~InstalledCounter();
  InstalledCounter(const InstalledCounter&) = delete;
  InstalledCounter& operator=(const InstalledCounter&) = delete;
  int64_t operator[](VNTRStatistic statistic) const { return (*delegate_)[statistic]; }
  int64_t finishedBatches() const { return delegate_->finishedBatches(); }

 private:
  std::shared_ptr<CountingDelegate> delegate_;
};

/// Drops every log message while it lives (for tests that cause thousands on purpose).
class QuietLog {
 public:
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;
};

/// The stored request bodies of `runtime`, newest first, after the store work queued so far.
std::vector<nlohmann::json> storedRequests(Runtime& runtime);

/// A certificate and key made at test time by the openssl program.
struct SelfSignedCertificate {
  std::filesystem::path certificate, key;
};
/// Nothing when the openssl program is missing or fails.
std::optional<SelfSignedCertificate> makeSelfSignedCertificate(const std::filesystem::path& dir);

/// An HTTPS server on 127.0.0.1 with a certificate no client trusts; counts the requests that
/// got through (none should).
class UntrustedTLSServer {
 public:
  explicit UntrustedTLSServer(const SelfSignedCertificate& certificate);
  ~UntrustedTLSServer();
  bool running() const { return port_ > 0; }
  int port() const { return port_; }
  std::string url(const std::string& path = "/tags") const;
  int64_t requests() const { return requests_.load(); }

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
  std::atomic<int64_t> requests_{0};
};

}  // namespace vntr::test
