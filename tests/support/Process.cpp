#include "support/Process.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

namespace vntr::test {

namespace fs = std::filesystem;
using nlohmann::json;

std::string faultChildProgram() { return VNTR_FAULT_CHILD; }

namespace {

int openOutput(const fs::path& file) {
  if (file.empty()) return ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  return ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

// The test's environment with `changes` ("NAME=value") applied.
std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const bool replaced = std::any_of(changes.begin(), changes.end(), [&](const auto& change) {
      return change.substr(0, change.find('=')) == text.substr(0, text.find('='));
    });
    if (!replaced) result.push_back(text);
  }
  result.insert(result.end(), changes.begin(), changes.end());
  return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& string : strings) pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Between fork and exec only async-signal-safe calls: everything is prepared before the fork.
[[noreturn]] void execChild(char* const* argv, char* const* envp, int in, int out, int err,
                            std::optional<uid_t> runAs, std::optional<mode_t> mask) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::dup2(in, STDIN_FILENO);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(err, STDERR_FILENO);
  // The test's sockets and files must not live on in the child (a held connection would keep a
  // server's worker busy).
  if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0) {
    for (int fd = 3; fd < 4096; ++fd) ::close(fd);
  }
  if (mask) ::umask(*mask);
  if (runAs && (::setgroups(0, nullptr) != 0 || ::setgid(*runAs) != 0 || ::setuid(*runAs) != 0)) {
    ::_exit(126);
  }
  ::execve(argv[0], argv, envp);
  ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const Options& options) {
  std::vector<std::string> arguments = options.arguments;
  std::vector<std::string> environment = environmentWith(options.environment);
  const auto argv = pointersTo(arguments);
  const auto envp = pointersTo(environment);
  const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int out = openOutput(options.stdoutFile);
  const int err = openOutput(options.stderrFile);
  if (in >= 0 && out >= 0 && err >= 0) {
    pid_ = ::fork();
    if (pid_ == 0) execChild(argv.data(), envp.data(), in, out, err, options.runAs, options.umask);
  }
  for (const int fd : {in, out, err}) {
    if (fd >= 0) ::close(fd);
  }
}

ChildProcess::~ChildProcess() { kill(); }

void ChildProcess::kill() {
  if (pid_ <= 0 || status_) return;
  ::kill(pid_, SIGKILL);
  wait(std::chrono::minutes(1));
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pid_ > 0 && !status_) {
    waitUntil(
        [this] {
          int status = 0;
          const pid_t done = ::waitpid(pid_, &status, WNOHANG);
          if (done == pid_) status_ = status;
          return done != 0 && !(done < 0 && errno == EINTR);
        },
        timeout);
  }
  return status_;
}

ChildProcess::Options command(std::vector<std::string> arguments, fs::path stderrFile) {
  ChildProcess::Options options;
  options.arguments = std::move(arguments);
  options.stderrFile = std::move(stderrFile);
  if (kSanitized) {
    const char* tsan = std::getenv("TSAN_OPTIONS");
    options.environment.push_back(std::string("TSAN_OPTIONS=") + (tsan != nullptr ? tsan : "") +
                                  ":atexit_sleep_ms=100");
  }
  return options;
}

bool hasSanitizerReport(const std::string& text) {
  for (const char* marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                             "WARNING: ThreadSanitizer", "ThreadSanitizer:", "runtime error:",
                             "SUMMARY: AddressSanitizer", "SUMMARY: UndefinedBehaviorSanitizer"}) {
    if (text.find(marker) != std::string::npos) return true;
  }
  return false;
}

std::string Ended::problem() const {
  if (status < 0) return "did not end:\n" + err;
  if (WIFSIGNALED(status))
    return "killed by signal " + std::to_string(WTERMSIG(status)) + ":\n" + err;
  if (WEXITSTATUS(status) == 0 && !hasSanitizerReport(err)) return "";
  return "exited with " + std::to_string(WEXITSTATUS(status)) + ":\n" + err;
}

Ended runToEnd(const ChildProcess::Options& options, std::chrono::seconds timeout) {
  Ended ended;
  ChildProcess child(options);
  ended.status = child.wait(timeout).value_or(-1);
  child.kill();
  ended.out = readFile(options.stdoutFile);
  ended.err = readFile(options.stderrFile);
  return ended;
}

int64_t readReportedCount(const fs::path& reportFile) {
  std::istringstream lines(readFile(reportFile));
  int64_t largest = 0;
  // A line cut short has no newline: getline reaches the end of the text on it.
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    if (!line.empty()) largest = std::max<int64_t>(largest, std::stoll(line));
  }
  return largest;
}

bool rerunCurrentTest(std::vector<std::string> launcher, std::optional<uid_t> runAs) {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  // The build tree may sit in a directory only its owner can enter (a fresh clone under
  // mktemp -d or /root): the other user runs a copy of this program from a directory it can reach.
  TempDir copy;
  fs::permissions(copy.path(), fs::perms::owner_all | fs::perms::group_read |
                                   fs::perms::group_exec | fs::perms::others_read |
                                   fs::perms::others_exec);
  std::error_code error;
  fs::copy_file("/proc/self/exe", copy / "tests", error);
  if (error) {
    ADD_FAILURE() << "cannot copy the test program: " << error.message();
    return false;
  }
  launcher.push_back((copy / "tests").string());
  launcher.push_back(std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name());
  auto options = command(launcher, copy / "stderr");
  options.stdoutFile = copy / "stdout";
  options.runAs = runAs;
  options.environment.push_back("VNTR_RERUN=1");
  // A sanitizer refuses to start when it cannot read its suppressions file: copied too.
  for (std::string& entry : options.environment) {
    const size_t at = entry.find("suppressions=");
    if (entry.find("SAN_OPTIONS=") == std::string::npos || at == std::string::npos) continue;
    const size_t from = at + std::string_view("suppressions=").size();
    const size_t end = entry.find(':', from);
    const fs::path original = entry.substr(from, end - from);
    fs::copy_file(original, copy / original.filename(), error);
    if (!error) entry.replace(from, end - from, (copy / original.filename()).string());
  }
  const Ended ended = runToEnd(options, std::chrono::seconds(120));
  EXPECT_EQ(ended.problem(), "") << "the run again:\n" << ended.out;
  EXPECT_NE(ended.out.find("[  PASSED  ] 1 test"), std::string::npos) << ended.out;
  return true;
}

std::optional<SelfSignedCertificate> makeSelfSignedCertificate(const fs::path& dir) {
  const fs::path openssl = "/usr/bin/openssl";  // where Debian's openssl package puts it
  if (!fs::exists(openssl)) return std::nullopt;
  SelfSignedCertificate files{dir / "cert.pem", dir / "key.pem"};
  const Ended ended =
      runToEnd(command({openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost",
                        "-keyout", files.key.string(), "-out", files.certificate.string()},
                       dir / "openssl.log"),
               std::chrono::seconds(30));
  if (!ended.problem().empty()) return std::nullopt;
  return files;
}

}  // namespace vntr::test
