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
#include <fstream>
#include <sstream>

#include "SandboxServer.hpp"

namespace vntr::test {

namespace fs = std::filesystem;
using nlohmann::json;

std::string faultChildProgram() { return VNTR_FAULT_CHILD; }

// --- ChildProcess ---

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
    const std::string name = text.substr(0, text.find('='));
    const bool replaced = std::any_of(changes.begin(), changes.end(), [&](const auto& change) {
      return change.substr(0, change.find('=')) == name;
    });
    if (!replaced) result.push_back(text);
  }
  result.insert(result.end(), changes.begin(), changes.end());
  return result;
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
  if (runAs) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(*runAs) != 0 || ::setuid(*runAs) != 0) {
      ::_exit(126);
    }
  }
  ::execve(argv[0], argv, envp);
  ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const Options& options) {
  std::vector<std::string> arguments = options.arguments;
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<std::string> environment = environmentWith(options.environment);
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  int pipeFds[2] = {-1, -1};
  int in = -1;
  if (options.pipeStdin) {
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return;
    in = pipeFds[0];
  } else {
    in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  const int out = openOutput(options.stdoutFile);
  const int err = openOutput(options.stderrFile);
  if (in >= 0 && out >= 0 && err >= 0) {
    pid_ = ::fork();
    if (pid_ == 0) {
      execChild(argv.data(), envp.data(), in, out, err, options.runAs, options.umask);
    }
  }
  for (const int fd : {in, out, err}) {
    if (fd >= 0) ::close(fd);
  }
  if (options.pipeStdin) {
    if (pid_ > 0) {
      stdin_ = pipeFds[1];
    } else {
      ::close(pipeFds[1]);
    }
  }
}

ChildProcess::~ChildProcess() {
  closeStdin();
  if (pid_ > 0 && !status_) kill();
}

void ChildProcess::kill() {
  if (pid_ <= 0 || status_) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  status_ = status;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return std::nullopt;
  if (status_) return status_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = status;
      return status_;
    }
    if (done < 0 && errno != EINTR) return std::nullopt;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

bool ChildProcess::writeStdin(const std::string& text) {
  if (stdin_ < 0) return false;
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(stdin_, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

void ChildProcess::closeStdin() {
  if (stdin_ >= 0) ::close(stdin_);
  stdin_ = -1;
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

std::string describeWaitStatus(int status) {
  if (WIFEXITED(status)) return "exited with " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "wait status " + std::to_string(status);
}

bool hasSanitizerReport(const std::string& text) {
  for (const char* marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                             "WARNING: ThreadSanitizer", "ThreadSanitizer:", "runtime error:",
                             "SUMMARY: AddressSanitizer", "SUMMARY: UndefinedBehaviorSanitizer"}) {
    if (text.find(marker) != std::string::npos) return true;
  }
  return false;
}

int64_t readReportedCount(const fs::path& reportFile) {
  const std::string text = readFile(reportFile);
  int64_t largest = 0;
  size_t start = 0;
  for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty()) largest = std::max<int64_t>(largest, std::stoll(line));
  }
  return largest;
}

bool rerunCurrentTestAs(uid_t uid) {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
  // The build tree may sit in a directory only its owner can enter (a fresh clone under
  // mktemp -d or /root): the other user runs a copy of this program from a directory it can reach.
  TempDir copy;
  fs::permissions(copy.path(), fs::perms::owner_all | fs::perms::group_read |
                                   fs::perms::group_exec | fs::perms::others_read |
                                   fs::perms::others_exec);
  std::error_code error;
  fs::copy_file("/proc/self/exe", copy / "tests", error);
  if (error) {
    ADD_FAILURE() << "cannot copy the test program for user " << uid << ": " << error.message();
    return false;
  }
  auto options = command({(copy / "tests").string(), filter}, copy / "stderr");
  options.stdoutFile = copy / "stdout";
  options.runAs = uid;
  ChildProcess child(options);
  const auto status = child.wait(std::chrono::seconds(120));
  const std::string report = readFile(copy / "stdout") + readFile(copy / "stderr");
  EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
      << "the run as user " << uid << " " << (status ? describeWaitStatus(*status) : "did not end")
      << ":\n"
      << report;
  EXPECT_NE(report.find("[  PASSED  ] 1 test"), std::string::npos) << report;
  return true;
}

void EventLedger::attach(sandbox::SandboxServer& server) {
  server.setBatchObserver([this](const json& batch) {
    batches_.fetch_add(1);
    // The observer runs before the answer leaves; an answer that never arrives only makes
    // the check weaker, never wrong.
    if (batch.value("delivery", "") != "ok") return;
    for (const json& member : batch.value("members", json::array())) {
      const std::string answer = member.value("answer", "");
      if (answer != "result" && answer != "error") continue;
      if (const auto seq = sequenceOf(member)) addAnswered(*seq);
    }
  });
}

void EventLedger::addSaved(int64_t firstSeq, int64_t count) {
  std::scoped_lock lock(mutex_);
  for (int64_t i = 0; i < count; ++i) saved_.insert(firstSeq + i);
}

void EventLedger::addAnswered(int64_t seq) {
  std::scoped_lock lock(mutex_);
  answered_.insert(seq);
}

size_t EventLedger::savedCount() const {
  std::scoped_lock lock(mutex_);
  return saved_.size();
}

size_t EventLedger::answeredCount() const {
  std::scoped_lock lock(mutex_);
  return answered_.size();
}

std::vector<int64_t> EventLedger::owed() const {
  std::scoped_lock lock(mutex_);
  std::vector<int64_t> owed;
  for (const int64_t seq : saved_) {
    if (answered_.count(seq) == 0) owed.push_back(seq);
  }
  return owed;
}

std::vector<int64_t> EventLedger::missingFrom(const StoreContents& contents,
                                              int64_t firstSeq) const {
  std::vector<int64_t> missing;
  for (const int64_t seq : owed()) {
    if (seq >= firstSeq && contents.sequences.count(seq) == 0) missing.push_back(seq);
  }
  return missing;
}

std::optional<SelfSignedCertificate> makeSelfSignedCertificate(const fs::path& dir) {
  std::string openssl;
  const char* path = std::getenv("PATH");
  std::stringstream directories(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string entry; std::getline(directories, entry, ':');) {
    const fs::path candidate = fs::path(entry) / "openssl";
    if (!entry.empty() && ::access(candidate.c_str(), X_OK) == 0) {
      openssl = candidate.string();
      break;
    }
  }
  if (openssl.empty()) return std::nullopt;
  SelfSignedCertificate files{dir / "cert.pem", dir / "key.pem"};
  ChildProcess child(
      command({openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
               "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
               "subjectAltName=IP:127.0.0.1,DNS:localhost", "-keyout", files.key.string(), "-out",
               files.certificate.string()},
              dir / "openssl.log"));
  const auto status = child.wait(std::chrono::seconds(30));
  if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) return std::nullopt;
  return files;
}

struct UntrustedTLSServer::Impl {
  Impl(const SelfSignedCertificate& c) : server(c.certificate.c_str(), c.key.c_str()) {}
  httplib::SSLServer server;
  std::thread thread;
};

UntrustedTLSServer::UntrustedTLSServer(const SelfSignedCertificate& certificate)
    : impl_(std::make_unique<Impl>(certificate)) {
  if (!impl_->server.is_valid()) return;
  impl_->server.Post("/tags", [this](const httplib::Request&, httplib::Response& res) {
    requests_.fetch_add(1);
    res.set_content("[]", "application/json");
  });
  impl_->server.Get("/gdpr/check/json/current",
                    [this](const httplib::Request&, httplib::Response& res) {
                      requests_.fetch_add(1);
                      res.set_content(R"({"needs_consent":false})", "application/json");
                    });
  const int port = impl_->server.bind_to_any_port("127.0.0.1");
  if (port <= 0) return;
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  if (!waitUntil([this] { return impl_->server.is_running(); }, std::chrono::seconds(10))) return;
  port_ = port;
}

UntrustedTLSServer::~UntrustedTLSServer() {
  impl_->server.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

std::string UntrustedTLSServer::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

}  // namespace vntr::test
