#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "SandboxServerImpl.hpp"

namespace vntr::sandbox {
namespace {

constexpr int64_t kMaxDelayMs = 600000;

std::string hostPort(const sockaddr_storage& address, socklen_t length, int& port) {
  char host[NI_MAXHOST];
  char service[NI_MAXSERV];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host, service,
                  sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return {};
  }
  port = std::atoi(service);
  return host;
}

}  // namespace

// Event data is untrusted: never let a bad string turn into an exception on a server thread.
std::string dumpJSON(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void sendJSON(httplib::Response& res, const json& value, int status) {
  res.status = status;
  res.set_content(dumpJSON(value), "application/json");
}

int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string isoTime(int64_t ms) {
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[40];
  const size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(ms % 1000));
  return text;
}

// A stable fraction in [0, 1) for one arrival of one id. Keyed by the arrival count too, so
// that a client resending a dropped request gets a fresh decision and eventually an answer.
double dropFraction(const std::string& id, int64_t arrival) {
  uint64_t h = 1469598103934665603ull;  // FNV-1a ...
  for (const char c : id + '\n' + std::to_string(arrival)) {
    h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  }
  h ^= h >> 33;  // ... with a final mix, as FNV's low bits alone are poorly spread
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  return static_cast<double>(h >> 11) * 0x1.0p-53;
}

std::optional<int64_t> integerIn(const json& value, int64_t low, int64_t high) {
  if (value.is_number_unsigned()) {
    const auto n = value.get<uint64_t>();
    if (n > static_cast<uint64_t>(high)) return std::nullopt;
    return static_cast<int64_t>(n) >= low ? std::optional<int64_t>(static_cast<int64_t>(n))
                                          : std::nullopt;
  }
  if (!value.is_number_integer()) return std::nullopt;
  const auto n = value.get<int64_t>();
  return n >= low && n <= high ? std::optional<int64_t>(n) : std::nullopt;
}

// cpp-httplib gives a handler no access to its socket. To close a connection without any answer
// the socket is found among the process's descriptors by its two addresses, which no other open
// socket shares while the handler holds the connection, and shut down; writing the answer then
// fails and cpp-httplib closes the descriptor.
bool shutdownConnection(const httplib::Request& req) {
  std::error_code error;
  std::filesystem::directory_iterator it("/proc/self/fd", error);
  for (int guard = 0; !error && it != std::filesystem::directory_iterator() && guard < 65536;
       it.increment(error), ++guard) {
    const int fd = std::atoi(it->path().filename().c_str());
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t localLength = sizeof local;
    socklen_t peerLength = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
      continue;
    }
    int localPort = -1;
    int peerPort = -1;
    hostPort(local, localLength, localPort);
    const std::string peerHost = hostPort(peer, peerLength, peerPort);
    if (localPort == req.local_port && peerPort == req.remote_port && peerHost == req.remote_addr) {
      return ::shutdown(fd, SHUT_RDWR) == 0;
    }
  }
  return false;
}

// What a batch element shows on the page: the request's identity and the members a developer
// checks when testing their tagging.
json describeRequest(const json& element) {
  json member = json::object();
  if (!element.is_object()) {
    member["invalid"] = "not an object";
    return member;
  }
  const auto method = element.find("method");
  member["method"] = method != element.end() && method->is_string() ? *method : json();
  const auto id = element.find("id");
  member["id"] = id != element.end() && id->is_string() ? *id : json();
  const auto params = element.find("params");
  if (params != element.end() && params->is_object()) {
    for (const char* key : {"events", "eventGroup", "eventData", "eventTime", "siteId", "appId"}) {
      if (const auto value = params->find(key); value != params->end()) member[key] = *value;
    }
  }
  return member;
}

json toJSON(const Stats& s) {
  return {{"batches", s.batches},
          {"requests", s.requests},
          {"events", s.events},
          {"duplicates", s.duplicates},
          {"getEvents", s.getEvents},
          {"answered", s.answered},
          {"bytesReceived", s.bytesReceived},
          {"rejected", s.rejected},
          {"consentChecks", s.consentChecks}};
}

json toJSON(const Faults& f) {
  return {{"statusCode", f.statusCode},
          {"dropShare", f.dropShare},
          {"errorEntries", f.errorEntries},
          {"malformedBody", f.malformedBody},
          {"emptyBody", f.emptyBody},
          {"delayMs", f.delayMs},
          {"closeConnection", f.closeConnection},
          {"retryAfter", f.retryAfterSeconds}};
}

std::optional<std::string> applyFaults(const json& patch, Faults& faults) {
  if (!patch.is_object()) return "faults must be a JSON object";
  Faults next = faults;
  for (const auto& [key, value] : patch.items()) {
    if (key == "statusCode") {
      const auto code = integerIn(value, 100, 599);
      if (!code) return "statusCode must be an integer from 100 to 599";
      next.statusCode = static_cast<int>(*code);
    } else if (key == "delayMs") {
      const auto delay = integerIn(value, 0, kMaxDelayMs);
      if (!delay) return "delayMs must be an integer from 0 to 600000";
      next.delayMs = static_cast<int>(*delay);
    } else if (key == "retryAfter") {
      const auto seconds = integerIn(value, 0, 86400);
      if (!seconds) return "retryAfter must be an integer from 0 to 86400";
      next.retryAfterSeconds = static_cast<int>(*seconds);
    } else if (key == "dropShare") {
      if (!value.is_number() || value.get<double>() < 0.0 || value.get<double>() > 1.0) {
        return "dropShare must be a number from 0 to 1";
      }
      next.dropShare = value.get<double>();
    } else if (key == "errorEntries" || key == "malformedBody" || key == "emptyBody" ||
               key == "closeConnection") {
      if (!value.is_boolean()) return key + " must be true or false";
      bool& flag = key == "errorEntries"    ? next.errorEntries
                   : key == "malformedBody" ? next.malformedBody
                   : key == "emptyBody"     ? next.emptyBody
                                            : next.closeConnection;
      flag = value.get<bool>();
    } else {
      return "unknown fault \"" + key + "\"";
    }
  }
  faults = next;
  return std::nullopt;
}

}  // namespace vntr::sandbox
