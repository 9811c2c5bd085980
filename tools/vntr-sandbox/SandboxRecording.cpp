#include <chrono>
#include <mutex>
#include <string>

#include "SandboxServerImpl.hpp"

namespace vntr::sandbox {
namespace {

constexpr size_t kMaxStoredEvents = 200000;

}  // namespace

json SandboxServer::Impl::getEventsResult() const {
  json result = {{"batchInterval", config.batchIntervalMs}};
  if (config.qualifiedEvents) {
    result["qualifiedEvents"] = *config.qualifiedEvents;
    result["expireEvents"] = config.expireEventsMs;
  }
  return result;
}

std::string SandboxServer::Impl::baseURLLocked() const {
  const std::string& host = config.host;
  const bool v6 = host.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(boundPort);
}

json SandboxServer::Impl::configJSON() const {
  json c = {{"batchInterval", config.batchIntervalMs},
            {"qualifiedEvents", config.qualifiedEvents ? *config.qualifiedEvents : json()},
            {"expireEvents", config.expireEventsMs},
            {"needsConsent", config.needsConsent},
            {"faults", toJSON(config.faults)},
            {"tagsURL", baseURLLocked() + "/tags"},
            {"consentURL", baseURLLocked() + "/gdpr/check/json/current"}};
  return c;
}

// The client never reads the entries of an answer that is not JSON, has no body or never
// came (the status code does not matter to it): its rows say so instead of "result" or "error".
void SandboxServer::Impl::markUnread(json& members, const Faults& f) {
  const std::string why = f.closeConnection ? "connection closed"
                          : f.emptyBody     ? "empty body"
                                            : "malformed body";
  for (json& member : members) {
    const auto answer = member.find("answer");
    if (answer != member.end() && (*answer == "result" || *answer == "error")) {
      member["answer"] = "unread (" + why + ")";
    }
  }
}

// Answers one element and records it in `member`; returns whether a syncEvent got an entry.
bool SandboxServer::Impl::answerRequest(const json& element, json& member, json& answer) {
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
    member["error"] = "400 unknown method";
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
    member["error"] = "500 Injected error (sandbox)";
  } else {
    answer.push_back({{"id", id}, {"result", {{"status", "ok"}}}});
    member["answer"] = "result";
  }
  return true;
}

SandboxServer::Impl::Plan SandboxServer::Impl::recordBatch(const json& body, size_t bytes) {
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
  if (!delivered) markUnread(members, f);
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
void SandboxServer::Impl::delay(int ms) {
  std::unique_lock lock(mutex);
  wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping; });
}

void SandboxServer::Impl::reset() {
  std::scoped_lock lock(mutex);
  stats = Stats{};
  arrivals.clear();
  events.clear();
  batches.clear();
}

SandboxServer::Impl::View SandboxServer::Impl::view(size_t limit) const {
  std::scoped_lock lock(mutex);
  View v{toJSON(stats), configJSON(), json::array()};
  const size_t first = batches.size() > limit ? batches.size() - limit : 0;
  for (size_t i = first; i < batches.size(); ++i) v.batches.push_back(batches[i]);
  return v;
}

Stats SandboxServer::Impl::snapshotStats() const {
  std::scoped_lock lock(mutex);
  return stats;
}

}  // namespace vntr::sandbox
