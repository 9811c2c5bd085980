#include "SandboxProcess.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "PipeLines.hpp"
#include "platform/linux/Files.hpp"
#include "platform/linux/Paths.hpp"

namespace vntr::bench {

namespace {

using nlohmann::json;

// The server program: beside this one, as the build and the packages place them.
std::string serverProgram() { return joinPath(runningExecutable().directory, "vntr-bench-server"); }

}  // namespace

std::unique_ptr<SandboxHandle> SandboxHandle::start(int64_t batchIntervalMs) {
  const std::string program = serverProgram();
  const std::string interval = std::to_string(batchIntervalMs);
  int down[2] = {-1, -1};
  int up[2] = {-1, -1};
  const auto closeAll = [&] {
    for (const int fd : {down[0], down[1], up[0], up[1]}) {
      if (fd >= 0) ::close(fd);
    }
  };
  if (::pipe2(down, O_CLOEXEC) != 0 || ::pipe2(up, O_CLOEXEC) != 0) {
    std::perror("vntr-bench: pipe");
    closeAll();
    return nullptr;
  }
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) {
    std::perror("vntr-bench: fork");
    closeAll();
    return nullptr;
  }
  if (pid == 0) {
    if (::dup2(down[0], STDIN_FILENO) < 0 || ::dup2(up[1], STDOUT_FILENO) < 0) ::_exit(127);
    ::execl(program.c_str(), "vntr-bench-server", interval.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(down[0]);
  ::close(up[1]);
  std::unique_ptr<SandboxHandle> handle(new SandboxHandle);
  handle->child_ = pid;
  handle->toChild_ = down[1];
  handle->fromChild_ = up[0];
  const auto line = readLine(handle->fromChild_, handle->buffer_);
  const json hello = line ? json::parse(*line, nullptr, false) : json();
  if (!hello.is_object() || !hello.contains("port")) {
    std::fprintf(stderr, "vntr-bench: %s did not start: %s\n", program.c_str(),
                 line ? line->c_str() : "(no answer)");
    return nullptr;
  }
  handle->port_ = hello["port"].get<int>();
  return handle;
}

SandboxHandle::~SandboxHandle() {
  writeAll(toChild_, "quit\n");
  ::close(toChild_);
  ::close(fromChild_);
  int status = 0;
  while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
}

json SandboxHandle::ask(const std::string& command) {
  if (!writeAll(toChild_, command + "\n")) return json();
  const auto line = readLine(fromChild_, buffer_);
  return line ? json::parse(*line, nullptr, false) : json();
}

ServerStats SandboxHandle::stats() {
  const json s = ask("stats");
  if (!s.is_object()) return {};
  return {s.value("batches", int64_t{0}), s.value("bytesReceived", int64_t{0})};
}

Delivery SandboxHandle::check(int64_t events) {
  const json d = ask("check " + std::to_string(events));
  if (!d.is_object()) return {-1, -1, -1, -1};
  return {d.value("distinct", int64_t{-1}), d.value("repeated", int64_t{-1}),
          d.value("missing", int64_t{-1}), d.value("doubled", int64_t{-1})};
}

}  // namespace vntr::bench
