#pragma once

#include <sys/types.h>

#include "support/TestSupport.hpp"

namespace vntr::test {

/// The host program the fault tests start, kill and watch (tests/integration/FaultChild.cpp).
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
  /// SIGKILL, then reaps it.
  void kill();
  /// Waits up to `timeout` for the child to end; its wait status, or nothing on timeout.
  std::optional<int> wait(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// The options for running `arguments` with standard error going to `stderrFile`. Under
/// ThreadSanitizer the child sleeps 100 ms at exit (while its other threads go on, where races
/// at exit show) instead of the default 1 s.
ChildProcess::Options command(std::vector<std::string> arguments,
                              std::filesystem::path stderrFile = {});

/// How a child run to its end went: its wait status (-1: still running at the timeout, then
/// killed) and what it wrote to its output files.
struct Ended {
  int status = -1;
  std::string out, err;
  /// "" when it exited with 0 and without a sanitizer report; else how it ended and its stderr.
  std::string problem() const;
};
Ended runToEnd(const ChildProcess::Options& options, std::chrono::seconds timeout);

/// True when `text` holds a report of AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer
/// or ThreadSanitizer.
bool hasSanitizerReport(const std::string& text);

/// Runs the current test again in a copy of this program any user can reach, started through
/// `launcher` (a program and its first arguments, such as unshare; none: directly), as user
/// `runAs` if given, with VNTR_RERUN=1 in its environment; records its outcome as this test's.
/// False when it could not be run.
bool rerunCurrentTest(std::vector<std::string> launcher, std::optional<uid_t> runAs = {});

/// The largest count the child wrote to its report file (one decimal number per line; an
/// unfinished last line is ignored, as the child may have been killed while writing it).
int64_t readReportedCount(const std::filesystem::path& reportFile);

/// Nothing when the openssl program is missing or fails.
std::optional<SelfSignedCertificate> makeSelfSignedCertificate(const std::filesystem::path& dir);

}  // namespace vntr::test
