#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace vntr::bench {

/// What arrived at the server, checked against the sequence numbers fired ("seq" in the event
/// data).
struct Delivery {
  int64_t distinct = 0;  // distinct request ids
  int64_t repeated = 0;  // arrivals of an id seen before
  int64_t missing = 0;   // sequence numbers never seen
  int64_t doubled = 0;   // sequence numbers seen under more than one id
};

/// The server's counters that the figures use.
struct ServerStats {
  int64_t batches = 0;        // accepted POSTs to "/tags"
  int64_t bytesReceived = 0;  // body bytes of those
};

/// A sandbox tag server on 127.0.0.1 in a program of its own (vntr-bench-server, next to this
/// one), so that its memory, code and instructions (it keeps every request it receives) are not
/// counted as the library's: the peers were measured against a collector apart from them too.
/// Started before any thread exists; driven over two pipes, one command line and one JSON answer
/// line at a time; it exits when its pipe closes.
class SandboxHandle {
 public:
  /// Starts the server; nothing when it cannot (the reason on stderr).
  static std::unique_ptr<SandboxHandle> start(int64_t batchIntervalMs);
  ~SandboxHandle();
  SandboxHandle(const SandboxHandle&) = delete;
  SandboxHandle& operator=(const SandboxHandle&) = delete;

  std::string tagsURL() const { return "http://127.0.0.1:" + std::to_string(port_) + "/tags"; }
  ServerStats stats();
  /// Checks sequence numbers 0 ... events-1 against what arrived.
  Delivery check(int64_t events);

 private:
  SandboxHandle() = default;
  nlohmann::json ask(const std::string& command);

  pid_t child_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::string buffer_;
  int port_ = 0;
};

}  // namespace vntr::bench
