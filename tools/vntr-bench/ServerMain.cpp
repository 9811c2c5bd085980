// vntr-bench-server: the sandbox tag server that vntr-bench starts as a program of its own, so
// that the memory, code and instructions of a server that keeps every request it receives are
// not counted as the library's.
//
//   vntr-bench-server BATCH_INTERVAL_MS
//
// Prints {"port": P} once it listens on 127.0.0.1, then answers one line per command read from
// standard input: "stats", "check N" (sequence numbers 0 ... N-1 against what arrived) or
// "quit". It also ends when standard input closes or its parent dies.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <vector>

#include "PipeLines.hpp"
#include "SandboxServer.hpp"

namespace {

using nlohmann::json;

bool writeLine(const json& value) {
  return vntr::bench::writeAll(STDOUT_FILENO, value.dump() + "\n");
}

json checkDelivery(const vntr::sandbox::SandboxServer& server, int64_t events) {
  if (events < 0 || events > 100'000'000) return {{"error", "no such count of events"}};
  const auto stats = server.stats();
  int64_t missing = 0;
  int64_t doubled = 0;
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
    if (count == 0) ++missing;
    if (count > 1) doubled += count - 1;
  }
  return {{"distinct", stats.events},
          {"repeated", stats.duplicates},
          {"missing", missing},
          {"doubled", doubled}};
}

}  // namespace

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  const long long interval = argc == 2 ? std::strtoll(argv[1], nullptr, 10) : 0;
  if (interval < 100) {
    writeLine({{"error", "usage: vntr-bench-server BATCH_INTERVAL_MS (at least 100)"}});
    return 2;
  }
  vntr::sandbox::SandboxConfig config;
  config.batchIntervalMs = interval;
  vntr::sandbox::SandboxServer server(config);
  if (!server.start()) {
    writeLine({{"error", "the sandbox server could not listen on 127.0.0.1"}});
    return 1;
  }
  writeLine({{"port", server.port()}});
  int status = 0;
  std::string buffer;
  while (auto line = vntr::bench::readLine(STDIN_FILENO, buffer)) {
    if (*line == "stats") {
      writeLine(vntr::sandbox::toJSON(server.stats()));
    } else if (line->rfind("check ", 0) == 0) {
      writeLine(checkDelivery(server, std::strtoll(line->c_str() + 6, nullptr, 10)));
    } else if (*line == "quit") {
      break;
    } else {
      writeLine({{"error", "unknown command"}});
      status = 1;
    }
  }
  server.stop();
  return status;
}
