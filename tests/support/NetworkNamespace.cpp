#include "support/NetworkNamespace.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

extern char** environ;

namespace vntr::test {

namespace {

constexpr int kSkipStatus = 77;

[[noreturn]] void reportAndExit(int pipeFd, const std::string& message, int status) {
  size_t sent = 0;
  while (sent < message.size()) {
    const ssize_t n = ::write(pipeFd, message.data() + sent, message.size() - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
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
  if (child < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return {Kind::failed, "fork failed"};
  }
  if (child == 0) {
    ::close(fds[0]);
    runChild(fds[1], scenario);
  }
  ::close(fds[1]);
  std::string message;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool timedOut = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd pfd{fds[0], POLLIN, 0};
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      timedOut = true;
      break;
    }
    char chunk[512];
    const ssize_t n = ::read(fds[0], chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    message.append(chunk, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  if (timedOut) ::kill(child, SIGKILL);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (timedOut) return {Kind::failed, "child timed out; " + message};
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {Kind::passed, ""};
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipStatus) return {Kind::skipped, message};
  if (!message.empty()) return {Kind::failed, message};
  return {Kind::failed, WIFSIGNALED(status)
                            ? "child killed by signal " + std::to_string(WTERMSIG(status))
                            : "child ended with status " + std::to_string(status)};
}

bool ip(const std::vector<std::string>& args) {
  std::vector<std::string> copies = args;
  std::string program = "ip";
  std::vector<char*> argv{program.data()};
  for (std::string& a : copies) argv.push_back(a.data());
  argv.push_back(nullptr);
  // Its output would interleave with the test's; only the exit status matters.
  posix_spawn_file_actions_t actions;
  if (::posix_spawn_file_actions_init(&actions) != 0) return false;
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, "ip", &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string ipAll(const std::vector<std::vector<std::string>>& commands) {
  for (const auto& args : commands) {
    if (!ip(args)) {
      std::string line = "ip";
      for (const std::string& a : args) line += " " + a;
      return "failed: " + line;
    }
  }
  return "";
}

}  // namespace vntr::test
