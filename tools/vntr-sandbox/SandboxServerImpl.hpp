#pragma once

// What the sandbox's sources share: the JSON and connection helpers (SandboxSupport.cpp) and the
// server's state, which SandboxRecording.cpp records and answers batches into and
// SandboxServer.cpp serves.

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>

#include "SandboxServer.hpp"

namespace vntr::sandbox {

using nlohmann::json;

inline constexpr size_t kBatchWindow = 200;

std::string dumpJSON(const json& value);
void sendJSON(httplib::Response& res, const json& value, int status = 200);
int64_t nowMs();
std::string isoTime(int64_t ms);
double dropFraction(const std::string& id, int64_t arrival);
std::optional<int64_t> integerIn(const json& value, int64_t low, int64_t high);
/// Closes the request's connection without any answer; false when it cannot be found.
bool shutdownConnection(const httplib::Request& req);
/// What a batch element shows on the page.
json describeRequest(const json& element);

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

  json getEventsResult() const;
  std::string baseURLLocked() const;
  json configJSON() const;
  static void markUnread(json& members, const Faults& f);
  bool answerRequest(const json& element, json& member, json& answer);
  Plan recordBatch(const json& body, size_t bytes);
  void delay(int ms);
  void reset();
  struct View {
    json stats, config, batches;
  };
  View view(size_t limit) const;
  Stats snapshotStats() const;

  void handleTags(const httplib::Request& req, httplib::Response& res);
  void handleConfig(const httplib::Request& req, httplib::Response& res);
  void handleFaults(const httplib::Request& req, httplib::Response& res);
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
  static httplib::Server::Handler guarded(Handler handler);
  void installRoutes(httplib::Server& s);
};

}  // namespace vntr::sandbox
