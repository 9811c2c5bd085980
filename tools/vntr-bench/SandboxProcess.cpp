#include "SandboxProcess.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

namespace vntr::bench {

namespace {

using nlohmann::json;

bool writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

bool writeLine(int fd, const json& value) { return writeAll(fd, value.dump() + "\n"); }

// One line from `fd` (without its newline), using `buffer` for what was read past it; nothing
// at end of file or on an error.
std::optional<std::string> readLine(int fd, std::string& buffer) {
  for (;;) {
    if (const auto end = buffer.find('\n'); end != std::string::npos) {
      std::string line = buffer.substr(0, end);
      buffer.erase(0, end + 1);
      return line;
    }
    char chunk[4096];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

Delivery checkDelivery(const sandbox::SandboxServer& server, int64_t events) {
  const auto stats = server.stats();
  Delivery d{stats.events, stats.duplicates, 0, 0};
  std::vector<int> seen(static_cast<size_t>(events), 0);
  for (const json& request : server.events()) {
    const auto params = request.find("params");
    if (params == request.end() || !params->is_object()) continue;
    const auto data = params->find("eventData");
    if (data == params->end() || !data->is_object()) continue;
    const auto seq = data->find("seq");
    if (seq == data->end() || !seq->is_number_integer()) continue;
    const auto n = seq->get<int64_t>();
    if (n >= 0 && n < events) ++seen[static_cast<size_t>(n)];
  }
  for (const int count : seen) {
    if (count == 0) ++d.missing;
    if (count > 1) d.doubled += count - 1;
  }
  return d;
}

json toJSON(const Delivery& d) {
  return {{"distinct", d.distinct},
          {"repeated", d.repeated},
          {"missing", d.missing},
          {"doubled", d.doubled}};
}

sandbox::SandboxConfig configWith(int64_t batchIntervalMs) {
  sandbox::SandboxConfig config;
  config.batchIntervalMs = batchIntervalMs;
  return config;
}

// The child: serves until its command pipe closes or it is told "quit".
[[noreturn]] void serve(int in, int out, int64_t batchIntervalMs) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  int status = 0;
  {
    sandbox::SandboxServer server(configWith(batchIntervalMs));
    if (!server.start()) {
      writeLine(out, {{"error", "the sandbox server could not listen on 127.0.0.1"}});
      ::_exit(1);
    }
    writeLine(out, {{"port", server.port()}});
    std::string buffer;
    while (auto line = readLine(in, buffer)) {
      if (*line == "stats") {
        writeLine(out, sandbox::toJSON(server.stats()));
      } else if (line->rfind("check ", 0) == 0) {
        writeLine(out, toJSON(checkDelivery(server, std::stoll(line->substr(6)))));
      } else if (*line == "quit") {
        break;
      } else {
        writeLine(out, {{"error", "unknown command"}});
        status = 1;
      }
    }
    server.stop();
  }
  ::_exit(status);
}

}  // namespace

std::unique_ptr<SandboxHandle> SandboxHandle::start(bool inProcess, int64_t batchIntervalMs) {
  std::unique_ptr<SandboxHandle> handle(new SandboxHandle);
  if (inProcess) {
    handle->server_ = std::make_unique<sandbox::SandboxServer>(configWith(batchIntervalMs));
    if (!handle->server_->start()) {
      std::fprintf(stderr, "vntr-bench: the sandbox server could not listen on 127.0.0.1\n");
      return nullptr;
    }
    handle->port_ = handle->server_->port();
    return handle;
  }
  int down[2];
  int up[2];
  if (::pipe2(down, O_CLOEXEC) != 0 || ::pipe2(up, O_CLOEXEC) != 0) {
    std::perror("vntr-bench: pipe");
    return nullptr;
  }
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) {
    std::perror("vntr-bench: fork");
    return nullptr;
  }
  if (pid == 0) {
    ::close(down[1]);
    ::close(up[0]);
    serve(down[0], up[1], batchIntervalMs);
  }
  ::close(down[0]);
  ::close(up[1]);
  handle->child_ = pid;
  handle->toChild_ = down[1];
  handle->fromChild_ = up[0];
  const auto line = readLine(handle->fromChild_, handle->buffer_);
  const json hello = line ? json::parse(*line, nullptr, false) : json();
  if (!hello.is_object() || !hello.contains("port")) {
    std::fprintf(stderr, "vntr-bench: the sandbox process did not start: %s\n",
                 line ? line->c_str() : "(no answer)");
    return nullptr;
  }
  handle->port_ = hello["port"].get<int>();
  return handle;
}

SandboxHandle::~SandboxHandle() {
  if (server_) server_->stop();
  if (child_ > 0) {
    writeAll(toChild_, "quit\n");
    ::close(toChild_);
    ::close(fromChild_);
    int status = 0;
    while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

json SandboxHandle::ask(const std::string& command) {
  if (!writeAll(toChild_, command + "\n")) return json();
  const auto line = readLine(fromChild_, buffer_);
  return line ? json::parse(*line, nullptr, false) : json();
}

sandbox::Stats SandboxHandle::stats() {
  if (server_) return server_->stats();
  const json s = ask("stats");
  sandbox::Stats stats;
  if (!s.is_object()) return stats;
  stats.batches = s.value("batches", int64_t{0});
  stats.requests = s.value("requests", int64_t{0});
  stats.events = s.value("events", int64_t{0});
  stats.duplicates = s.value("duplicates", int64_t{0});
  stats.getEvents = s.value("getEvents", int64_t{0});
  stats.answered = s.value("answered", int64_t{0});
  stats.bytesReceived = s.value("bytesReceived", int64_t{0});
  stats.rejected = s.value("rejected", int64_t{0});
  stats.consentChecks = s.value("consentChecks", int64_t{0});
  return stats;
}

Delivery SandboxHandle::check(int64_t events) {
  if (server_) return checkDelivery(*server_, events);
  const json d = ask("check " + std::to_string(events));
  Delivery delivery{-1, -1, -1, -1};
  if (!d.is_object()) return delivery;
  delivery.distinct = d.value("distinct", int64_t{-1});
  delivery.repeated = d.value("repeated", int64_t{-1});
  delivery.missing = d.value("missing", int64_t{-1});
  delivery.doubled = d.value("doubled", int64_t{-1});
  return delivery;
}

}  // namespace vntr::bench
