#include "SandboxServer.hpp"

#include <httplib.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <limits>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace vntr::sandbox {
namespace {

using nlohmann::json;

constexpr size_t kBatchWindow = 200;
constexpr size_t kMaxStoredEvents = 200000;
constexpr size_t kMaxBodyBytes = 32u * 1024u * 1024u;
constexpr int64_t kMaxDelayMs = 600000;
// An idle kept-alive connection holds a worker, and stop() waits for it: keep the wait short.
constexpr time_t kKeepAliveSeconds = 1;
constexpr size_t kKeepAliveMaxRequests = 1000;

// Event data is untrusted: never let a bad string turn into an exception on a server thread.
std::string dumpJSON(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void sendJSON(httplib::Response& res, const json& value, int status = 200) {
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

}  // namespace

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

/// The state is guarded by `mutex`; `server` and `thread` belong to start()/stop(), which
/// serialise on `lifecycle`.
struct SandboxServer::Impl {
  mutable std::mutex mutex;
  std::condition_variable wake;  // ends pending delays when the server stops
  SandboxConfig config;
  Stats stats;
  std::unordered_map<std::string, int64_t> arrivals;  // every syncEvent id ever seen
  std::deque<json> events;
  std::deque<json> batches;
  int64_t nextSequence = 1;
  int boundPort = 0;
  bool stopping = false;
  std::function<void(const json&)> observer;

  std::mutex lifecycle;
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  std::atomic<bool> listenEnded{false};

  explicit Impl(SandboxConfig c) : config(std::move(c)) {}

  // Answers of one batch, decided under the lock and delivered after it is released.
  struct Plan {
    Faults faults;
    json answer = json::array();
    json batch;
    std::function<void(const json&)> observer;
  };

  json getEventsResult() const {
    json result = {{"batchInterval", config.batchIntervalMs}};
    if (config.qualifiedEvents) {
      result["qualifiedEvents"] = *config.qualifiedEvents;
      result["expireEvents"] = config.expireEventsMs;
    }
    return result;
  }

  std::string baseURLLocked() const {
    const std::string& host = config.host;
    const bool v6 = host.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(boundPort);
  }

  json configJSON() const {
    json c = {{"batchInterval", config.batchIntervalMs},
              {"qualifiedEvents", config.qualifiedEvents ? *config.qualifiedEvents : json()},
              {"expireEvents", config.expireEventsMs},
              {"needsConsent", config.needsConsent},
              {"faults", toJSON(config.faults)},
              {"tagsURL", baseURLLocked() + "/tags"},
              {"consentURL", baseURLLocked() + "/gdpr/check/json/current"}};
    return c;
  }

  // Answers one element and records it in `member`; returns whether a syncEvent got an entry.
  bool answerRequest(const json& element, json& member, json& answer) {
    if (!element.is_object() || !member["id"].is_string()) {
      member["answer"] = "none";  // nothing to address an answer to
      return false;
    }
    const std::string id = member["id"];
    const json method = member["method"];
    if (method == "getEvents") {
      ++stats.getEvents;
      answer.push_back({{"id", id}, {"result", getEventsResult()}});
      member["answer"] = "result";
      return false;
    }
    if (method != "syncEvent") {
      answer.push_back({{"id", id}, {"error", {{"code", 400}, {"message", "unknown method"}}}});
      member["answer"] = "error";
      return false;
    }
    const int64_t arrival = ++arrivals[id];
    member["arrival"] = arrival;
    if (arrival == 1) {
      ++stats.events;
      events.push_back(element);
      if (events.size() > kMaxStoredEvents) events.pop_front();
    } else {
      ++stats.duplicates;
    }
    const Faults& faults = config.faults;
    if (faults.dropShare > 0.0 && dropFraction(id, arrival) < faults.dropShare) {
      member["answer"] = "dropped";
      return false;
    }
    if (faults.errorEntries) {
      answer.push_back(
          {{"id", id}, {"error", {{"code", 500}, {"message", "Injected error (sandbox)"}}}});
      member["answer"] = "error";
    } else {
      answer.push_back({{"id", id}, {"result", {{"status", "ok"}}}});
      member["answer"] = "result";
    }
    return true;
  }

  Plan recordBatch(const json& body, size_t bytes) {
    Plan plan;
    json members = json::array();
    std::scoped_lock lock(mutex);
    plan.faults = config.faults;
    int64_t entries = 0;
    for (const json& element : body) {
      json member = describeRequest(element);
      if (answerRequest(element, member, plan.answer)) ++entries;
      members.push_back(std::move(member));
    }
    const Faults& f = plan.faults;
    const bool delivered = !f.malformedBody && !f.emptyBody && !f.closeConnection;
    ++stats.batches;
    stats.requests += static_cast<int64_t>(body.size());
    stats.bytesReceived += static_cast<int64_t>(bytes);
    if (delivered) stats.answered += entries;
    const int64_t at = nowMs();
    plan.batch = {{"seq", nextSequence++},
                  {"receivedAt", at},
                  {"receivedAtISO", isoTime(at)},
                  {"bytes", bytes},
                  {"status", f.closeConnection ? 0 : f.statusCode},
                  {"delivery", f.closeConnection ? "closed"
                               : f.emptyBody     ? "empty"
                               : f.malformedBody ? "malformed"
                                                 : "ok"},
                  {"delayMs", f.delayMs},
                  {"members", std::move(members)}};
    batches.push_back(plan.batch);
    if (batches.size() > kBatchWindow) batches.pop_front();
    plan.observer = observer;
    if (!plan.observer) plan.batch = json();
    return plan;
  }

  // Waits `ms` or until the server stops, whichever comes first.
  void delay(int ms) {
    std::unique_lock lock(mutex);
    wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
  }

  void handleTags(const httplib::Request& req, httplib::Response& res) {
    const json body = json::parse(req.body, nullptr, false);
    if (body.is_discarded() || !body.is_array()) {
      {
        std::scoped_lock lock(mutex);
        ++stats.rejected;
      }
      sendJSON(res, {{"error", "the body must be a JSON array of requests"}}, 400);
      return;
    }
    Plan plan = recordBatch(body, req.body.size());
    if (plan.observer) {
      try {
        plan.observer(plan.batch);
      } catch (...) {  // an observer's failure must not cost the client its answer
      }
    }
    if (plan.faults.delayMs > 0) delay(plan.faults.delayMs);
    if (plan.faults.closeConnection) {
      shutdownConnection(req);
      res.status = 500;  // only seen if the connection could not be found
      return;
    }
    res.status = plan.faults.statusCode;
    if (plan.faults.retryAfterSeconds > 0) {
      res.set_header("Retry-After", std::to_string(plan.faults.retryAfterSeconds));
    }
    if (plan.faults.emptyBody) return;
    std::string text = dumpJSON(plan.answer);
    // Every proper prefix of a JSON array is invalid JSON, so half of the answer never parses.
    if (plan.faults.malformedBody) text.resize(text.size() / 2);
    res.set_content(text, "application/json");
  }

  void handleConfig(const httplib::Request& req, httplib::Response& res) {
    const json patch = json::parse(req.body, nullptr, false);
    if (!patch.is_object()) return sendJSON(res, {{"error", "expected a JSON object"}}, 400);
    std::scoped_lock lock(mutex);
    SandboxConfig next = config;
    for (const auto& [key, value] : patch.items()) {
      const auto integer = integerIn(value, std::numeric_limits<int64_t>::min(),
                                     std::numeric_limits<int64_t>::max());
      if (key == "batchInterval" && integer) {
        next.batchIntervalMs = *integer;
      } else if (key == "expireEvents" && integer) {
        next.expireEventsMs = *integer;
      } else if (key == "needsConsent" && value.is_boolean()) {
        next.needsConsent = value.get<bool>();
      } else if (key == "qualifiedEvents") {
        // Any value is passed on as it stands, so clients can be tried with bad lists too.
        next.qualifiedEvents = value.is_null() ? std::nullopt : std::optional<json>(value);
      } else if (key == "faults") {
        if (auto error = applyFaults(value, next.faults)) {
          return sendJSON(res, {{"error", *error}}, 400);
        }
      } else {
        return sendJSON(res, {{"error", "unknown setting or wrong type: " + key}}, 400);
      }
    }
    config = std::move(next);
    sendJSON(res, configJSON());
  }

  void handleFaults(const httplib::Request& req, httplib::Response& res) {
    const json patch = json::parse(req.body, nullptr, false);
    std::scoped_lock lock(mutex);
    if (auto error = applyFaults(patch, config.faults)) {
      return sendJSON(res, {{"error", *error}}, 400);
    }
    sendJSON(res, toJSON(config.faults));
  }

  void reset() {
    std::scoped_lock lock(mutex);
    stats = Stats{};
    arrivals.clear();
    events.clear();
    batches.clear();
  }

  struct View {
    json stats, config, batches;
  };
  View view(size_t limit) const {
    std::scoped_lock lock(mutex);
    View v{toJSON(stats), configJSON(), json::array()};
    const size_t first = batches.size() > limit ? batches.size() - limit : 0;
    for (size_t i = first; i < batches.size(); ++i) v.batches.push_back(batches[i]);
    return v;
  }

  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
  static httplib::Server::Handler guarded(Handler handler) {
    return [handler = std::move(handler)](const httplib::Request& req, httplib::Response& res) {
      try {
        handler(req, res);
      } catch (const std::exception& e) {
        sendJSON(res, {{"error", std::string("internal error: ") + e.what()}}, 500);
      }
    };
  }

  void installRoutes(httplib::Server& s) {
    s.Post("/tags", guarded([this](auto& req, auto& res) { handleTags(req, res); }));
    s.Get("/gdpr/check/json/current", guarded([this](auto&, auto& res) {
            std::scoped_lock lock(mutex);
            ++stats.consentChecks;
            sendJSON(res, {{"needs_consent", config.needsConsent}});
          }));
    const auto page = [this](bool whole) {
      return guarded([this, whole](auto&, auto& res) {
        const View v = view(50);
        res.set_header("Cache-Control", "no-store");
        res.set_content(whole ? renderPage(v.stats, v.config, v.batches)
                              : renderFragment(v.stats, v.config, v.batches),
                        "text/html; charset=utf-8");
      });
    };
    s.Get("/", page(true));
    s.Get("/fragment", page(false));
    s.Get("/api/stats",
          guarded([this](auto&, auto& res) { sendJSON(res, toJSON(snapshotStats())); }));
    s.Get("/api/batches", guarded([this](auto& req, auto& res) {
            size_t limit = kBatchWindow;
            if (req.has_param("limit")) {
              limit = std::min<size_t>(
                  kBatchWindow, std::strtoul(req.get_param_value("limit").c_str(), nullptr, 10));
            }
            sendJSON(res, {{"batches", view(limit).batches}});
          }));
    s.Get("/api/config", guarded([this](auto&, auto& res) { sendJSON(res, view(0).config); }));
    s.Post("/api/config", guarded([this](auto& req, auto& res) { handleConfig(req, res); }));
    s.Get("/api/faults", guarded([this](auto&, auto& res) {
            std::scoped_lock lock(mutex);
            sendJSON(res, toJSON(config.faults));
          }));
    s.Post("/api/faults", guarded([this](auto& req, auto& res) { handleFaults(req, res); }));
    s.Post("/api/reset", guarded([this](auto&, auto& res) {
             reset();
             sendJSON(res, {{"reset", true}});
           }));
  }

  Stats snapshotStats() const {
    std::scoped_lock lock(mutex);
    return stats;
  }
};

SandboxServer::SandboxServer(SandboxConfig config)
    : impl_(std::make_unique<Impl>(std::move(config))) {}

SandboxServer::~SandboxServer() { stop(); }

bool SandboxServer::start() {
  std::scoped_lock life(impl_->lifecycle);
  if (impl_->server) return false;
  auto server = std::make_unique<httplib::Server>();
  impl_->installRoutes(*server);
  server->set_payload_max_length(kMaxBodyBytes);
  server->set_keep_alive_timeout(kKeepAliveSeconds);
  // cpp-httplib closes a connection after 5 requests by default; production servers keep one
  // for hundreds, and clients that reuse their connection should be seen doing so.
  server->set_keep_alive_max_count(kKeepAliveMaxRequests);
  // cpp-httplib's default adds SO_REUSEPORT, which lets a second sandbox bind the same port and
  // silently take half of the batches. SO_REUSEADDR alone still allows a quick restart.
  server->set_socket_options([](socket_t sock) {
    const int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  std::string host;
  int port = 0;
  {
    std::scoped_lock lock(impl_->mutex);
    host = impl_->config.host;
    port = impl_->boundPort != 0 ? impl_->boundPort : impl_->config.port;
  }
  if (port == 0) {
    port = server->bind_to_any_port(host);
  } else if (!server->bind_to_port(host, port)) {
    port = -1;
  }
  if (port <= 0) return false;
  {
    std::scoped_lock lock(impl_->mutex);
    impl_->boundPort = port;
    impl_->stopping = false;
  }
  impl_->listenEnded = false;
  impl_->thread = std::thread([this, s = server.get()] {
    s->listen_after_bind();
    impl_->listenEnded = true;
  });
  // cpp-httplib ignores stop() until its accept loop runs, so do not return before it does. The
  // loop marks itself running first thing, or the thread ends.
  while (!server->is_running() && !impl_->listenEnded) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (impl_->listenEnded) {
    impl_->thread.join();
    return false;
  }
  impl_->server = std::move(server);
  return true;
}

void SandboxServer::stop() {
  std::scoped_lock life(impl_->lifecycle);
  if (!impl_->server) return;
  {
    std::scoped_lock lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->wake.notify_all();
  impl_->server->stop();
  impl_->thread.join();
  impl_->server.reset();
}

bool SandboxServer::running() const {
  std::scoped_lock life(impl_->lifecycle);
  return impl_->server != nullptr;
}

int SandboxServer::port() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->boundPort;
}

std::string SandboxServer::baseURL() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->baseURLLocked();
}

std::string SandboxServer::tagsURL() const { return baseURL() + "/tags"; }

std::string SandboxServer::consentURL() const { return baseURL() + "/gdpr/check/json/current"; }

Stats SandboxServer::stats() const { return impl_->snapshotStats(); }

bool SandboxServer::received(const std::string& id) const { return timesReceived(id) > 0; }

int64_t SandboxServer::timesReceived(const std::string& id) const {
  std::scoped_lock lock(impl_->mutex);
  const auto it = impl_->arrivals.find(id);
  return it == impl_->arrivals.end() ? 0 : it->second;
}

std::vector<nlohmann::json> SandboxServer::events() const {
  std::scoped_lock lock(impl_->mutex);
  return {impl_->events.begin(), impl_->events.end()};
}

nlohmann::json SandboxServer::batches() const { return impl_->view(kBatchWindow).batches; }

void SandboxServer::reset() { impl_->reset(); }

void SandboxServer::setFaults(const Faults& faults) {
  std::scoped_lock lock(impl_->mutex);
  impl_->config.faults = faults;
}

Faults SandboxServer::faults() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->config.faults;
}

void SandboxServer::setBatchInterval(int64_t ms) {
  std::scoped_lock lock(impl_->mutex);
  impl_->config.batchIntervalMs = ms;
}

void SandboxServer::setQualifiedEvents(std::optional<nlohmann::json> records, int64_t expireMs) {
  std::scoped_lock lock(impl_->mutex);
  impl_->config.qualifiedEvents = std::move(records);
  impl_->config.expireEventsMs = expireMs;
}

void SandboxServer::setNeedsConsent(bool needsConsent) {
  std::scoped_lock lock(impl_->mutex);
  impl_->config.needsConsent = needsConsent;
}

SandboxConfig SandboxServer::config() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->config;
}

void SandboxServer::setBatchObserver(std::function<void(const nlohmann::json&)> observer) {
  std::scoped_lock lock(impl_->mutex);
  impl_->observer = std::move(observer);
}

}  // namespace vntr::sandbox
