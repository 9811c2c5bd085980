#include "support/NetworkNamespace.hpp"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "support/Process.hpp"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace vntr::test {

namespace {

constexpr int kSkipStatus = 77;

[[noreturn]] void reportAndExit(int pipeFd, const std::string& message, int status) {
  (void)!::write(pipeFd, message.data(), message.size());  // a blocking pipe takes it whole
  ::_exit(status);
}

[[noreturn]] void runChild(int pipeFd, const std::function<std::string()>& scenario) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::unshare(CLONE_NEWNET) != 0) {
    reportAndExit(pipeFd,
                  "cannot create a network namespace (needs root or CAP_SYS_ADMIN): " +
                      std::error_code(errno, std::generic_category()).message(),
                  kSkipStatus);
  }
  // Without a sysfs of its own the child would see the host's /sys/class/net. Propagation is
  // made private first so the new mount never reaches the host.
  if (::unshare(CLONE_NEWNS) == 0 &&
      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    ::mount("sysfs", "/sys", "sysfs", 0, nullptr);
  }
  std::string error;
  try {
    error = scenario();
  } catch (const std::exception& e) {
    error = std::string("scenario threw: ") + e.what();
  } catch (...) {
    error = "scenario threw something that is not a std::exception";
  }
#if defined(__SANITIZE_ADDRESS__)
  // The child ends with _exit, which skips the leak check the sanitizer runs at exit.
  if (error.empty() && __lsan_do_recoverable_leak_check() != 0) error = "leaks reported above";
#endif
  reportAndExit(pipeFd, error, error.empty() ? 0 : 1);
}

}  // namespace

NamespaceOutcome runInNetworkNamespace(const std::function<std::string()>& scenario,
                                       std::chrono::seconds timeout) {
  using Kind = NamespaceOutcome::Kind;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return {Kind::failed, "pipe failed"};
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    runChild(fds[1], scenario);
  }
  ::close(fds[1]);
  ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
  if (child < 0) {
    ::close(fds[0]);
    return {Kind::failed, "fork failed"};
  }
  // A scenario's message is a line or two: it fits in the pipe, so the child never waits for it
  // to be read and the message can be read once the child has ended.
  int status = 0;
  const bool ended = waitUntil([&] { return ::waitpid(child, &status, WNOHANG) != 0; }, timeout);
  if (!ended) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  std::string message;
  char chunk[512];
  for (ssize_t n; (n = ::read(fds[0], chunk, sizeof chunk)) > 0;) message.append(chunk, n);
  ::close(fds[0]);
  if (!ended) return {Kind::failed, "child timed out; " + message};
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {Kind::passed, ""};
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipStatus) return {Kind::skipped, message};
  if (!message.empty()) return {Kind::failed, message};
  return {Kind::failed, "child " + describeWaitStatus(status)};
}

namespace {
std::string commandLine(const std::vector<std::string>& args) {
  std::string line = "ip";
  for (const std::string& a : args) line += " " + a;
  return line;
}
}  // namespace

bool ip(const std::vector<std::string>& args) {
  return std::system((commandLine(args) + " >/dev/null").c_str()) == 0;
}

std::string ipAll(const std::vector<std::vector<std::string>>& commands) {
  for (const auto& args : commands) {
    if (!ip(args)) return "failed: " + commandLine(args);
  }
  return "";
}

}  // namespace vntr::test
