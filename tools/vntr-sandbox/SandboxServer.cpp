#include "SandboxServer.hpp"

#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <mutex>
#include <thread>

#include "SandboxServerImpl.hpp"

namespace vntr::sandbox {
namespace {

constexpr size_t kMaxBodyBytes = 32u * 1024u * 1024u;
// An idle kept-alive connection holds a worker, and stop() waits for it: keep the wait short.
constexpr time_t kKeepAliveSeconds = 1;
constexpr size_t kKeepAliveMaxRequests = 1000;

}  // namespace

void SandboxServer::Impl::handleTags(const httplib::Request& req, httplib::Response& res) {
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

void SandboxServer::Impl::handleConfig(const httplib::Request& req, httplib::Response& res) {
  const json patch = json::parse(req.body, nullptr, false);
  if (!patch.is_object()) return sendJSON(res, {{"error", "expected a JSON object"}}, 400);
  std::scoped_lock lock(mutex);
  SandboxConfig next = config;
  for (const auto& [key, value] : patch.items()) {
    const auto integer =
        integerIn(value, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
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

void SandboxServer::Impl::handleFaults(const httplib::Request& req, httplib::Response& res) {
  const json patch = json::parse(req.body, nullptr, false);
  std::scoped_lock lock(mutex);
  if (auto error = applyFaults(patch, config.faults)) {
    return sendJSON(res, {{"error", *error}}, 400);
  }
  sendJSON(res, toJSON(config.faults));
}

httplib::Server::Handler SandboxServer::Impl::guarded(Handler handler) {
  return [handler = std::move(handler)](const httplib::Request& req, httplib::Response& res) {
    try {
      handler(req, res);
    } catch (const std::exception& e) {
      sendJSON(res, {{"error", std::string("internal error: ") + e.what()}}, 500);
    }
  };
}

void SandboxServer::Impl::installRoutes(httplib::Server& s) {
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
