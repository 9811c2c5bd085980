#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "SandboxServer.hpp"
#include "support/TestSupport.hpp"

namespace vntr::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

json syncEvent(const std::string& id, const std::string& name = "open") {
  return {{"jsonrpc", "2.0"},
          {"method", "syncEvent"},
          {"id", id},
          {"params",
           {{"events", {name}},
            {"eventGroup", "shop"},
            {"eventData", {{"price", 9.99}}},
            {"eventTime", "20240101120000"}}}};
}

json getEvents(const std::string& id) {
  return {{"method", "getEvents"}, {"id", id}, {"params", {{"deviceData", {{"id", ""}}}}}};
}

struct Reply {
  httplib::Error error = httplib::Error::Success;
  int status = 0;
  std::string contentType;
  std::string body;
  json parsed() const { return json::parse(body, nullptr, false); }
};

Reply call(const SandboxServer& server, const std::string& method, const std::string& path,
           const std::string& body = {}) {
  httplib::Client client("127.0.0.1", server.port());
  client.set_read_timeout(20s);
  auto result = method == "GET" ? client.Get(path.c_str())
                                : client.Post(path.c_str(), body, "application/json");
  Reply reply;
  reply.error = result.error();
  if (result) {
    reply.status = result->status;
    reply.contentType = result->get_header_value("Content-Type");
    reply.body = result->body;
  }
  return reply;
}

// A vector, not a json: a braced list of one json would be taken as a copy, not an array.
Reply postBatch(const SandboxServer& server, const std::vector<json>& requests) {
  return call(server, "POST", "/tags", json(requests).dump());
}

// The answer entries keyed by id; entries must not repeat an id.
std::map<std::string, json> entriesById(const json& answer) {
  std::map<std::string, json> entries;
  for (const json& entry : answer) {
    EXPECT_TRUE(entries.emplace(entry.at("id").get<std::string>(), entry).second) << entry;
  }
  return entries;
}

struct Running {
  explicit Running(SandboxConfig config = {}) : server(std::move(config)) {
    EXPECT_TRUE(server.start());
  }
  SandboxServer server;
};

TEST(SandboxServer, answersEveryRequestByIdWithTheConfiguredGetEventsResult) {
  const json qualified = json::array({{{"eventName", "buy"}, {"ignoreBatch", true}}});
  SandboxConfig config;
  config.batchIntervalMs = 500;
  config.qualifiedEvents = qualified;
  config.expireEventsMs = 60000;
  Running r(config);
  EXPECT_EQ(r.server.tagsURL(), "http://127.0.0.1:" + std::to_string(r.server.port()) + "/tags");

  const Reply reply = postBatch(r.server, {syncEvent("A"), syncEvent("B"), getEvents("G")});
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(reply.contentType, "application/json");
  auto entries = entriesById(reply.parsed());
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries["A"], json({{"id", "A"}, {"result", {{"status", "ok"}}}}));
  EXPECT_EQ(entries["B"]["result"], json({{"status", "ok"}}));
  EXPECT_EQ(
      entries["G"]["result"],
      json({{"batchInterval", 500}, {"qualifiedEvents", qualified}, {"expireEvents", 60000}}));

  // Without a list, only the interval goes out; unknown methods get an error entry, and
  // elements without an id cannot be answered at all.
  r.server.setQualifiedEvents(std::nullopt, 0);
  r.server.setBatchInterval(-5);
  const json odd = {getEvents("G2"), {{"method", "ping"}, {"id", "P"}}, {{"method", "syncEvent"}}};
  entries = entriesById(postBatch(r.server, odd).parsed());
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries["G2"]["result"], json({{"batchInterval", -5}}));
  EXPECT_FALSE(entries["P"].contains("result"));
  EXPECT_EQ(entries["P"]["error"]["code"], 400);
  EXPECT_EQ(postBatch(r.server, json::array()).parsed(), json::array());
}

TEST(SandboxServer, deduplicatesEventsByIdAndCountsEveryArrival) {
  Running r;
  const std::vector<json> batches[] = {{syncEvent("A"), syncEvent("B")},
                                       {syncEvent("B"), syncEvent("C", "buy")},
                                       {syncEvent("A"), getEvents("G")}};
  int64_t bytes = 0;
  for (const auto& batch : batches) {
    bytes += static_cast<int64_t>(json(batch).dump().size());
    const auto entries = entriesById(postBatch(r.server, batch).parsed());
    EXPECT_EQ(entries.size(), batch.size());  // repeated ids are answered again
  }
  const Stats s = r.server.stats();
  EXPECT_EQ(s.batches, 3);
  EXPECT_EQ(s.requests, 6);
  EXPECT_EQ(s.events, 3);
  EXPECT_EQ(s.duplicates, 2);
  EXPECT_EQ(s.getEvents, 1);
  EXPECT_EQ(s.answered, 5);
  EXPECT_EQ(s.bytesReceived, bytes);
  EXPECT_EQ(r.server.timesReceived("A"), 2);
  EXPECT_EQ(r.server.timesReceived("C"), 1);
  EXPECT_FALSE(r.server.received("G"));  // only syncEvent ids are tracked
  const auto events = r.server.events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0]["id"], "A");
  EXPECT_EQ(events[2], batches[1][1]);  // the whole request, as sent
  EXPECT_EQ(call(r.server, "GET", "/api/stats").parsed(), toJSON(s));

  const json recorded = call(r.server, "GET", "/api/batches").parsed()["batches"];
  ASSERT_EQ(recorded.size(), 3u);
  const json& member = recorded[1]["members"][1];
  EXPECT_EQ(member["events"], json({"buy"}));
  EXPECT_EQ(member["eventGroup"], "shop");
  EXPECT_EQ(member["eventData"], json({{"price", 9.99}}));
  EXPECT_EQ(member["eventTime"], "20240101120000");
  EXPECT_EQ(recorded[1]["members"][0]["arrival"], 2);
  EXPECT_EQ(call(r.server, "GET", "/api/batches?limit=1").parsed()["batches"][0]["seq"], 3);

  r.server.reset();
  EXPECT_EQ(toJSON(r.server.stats()), toJSON(Stats{}));
  postBatch(r.server, {syncEvent("A")});
  EXPECT_EQ(r.server.stats().duplicates, 0);
}

TEST(SandboxServer, injectsEachFaultIntoTheAnswers) {
  Running r;
  const json batch = {syncEvent("A"), getEvents("G")};

  r.server.setFaults({.statusCode = 503});
  Reply reply = postBatch(r.server, batch);
  EXPECT_EQ(reply.status, 503);
  EXPECT_EQ(entriesById(reply.parsed()).size(), 2u);

  r.server.setFaults({.errorEntries = true});
  auto entries = entriesById(postBatch(r.server, batch).parsed());
  EXPECT_EQ(entries["A"]["error"], json({{"code", 500}, {"message", "Injected error (sandbox)"}}));
  EXPECT_FALSE(entries["A"].contains("result"));
  EXPECT_TRUE(entries["G"].contains("result"));

  r.server.setFaults({.malformedBody = true});
  reply = postBatch(r.server, batch);
  EXPECT_EQ(reply.status, 200);
  EXPECT_FALSE(reply.body.empty());
  EXPECT_FALSE(json::accept(reply.body));

  r.server.setFaults({.emptyBody = true});
  reply = postBatch(r.server, batch);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "");

  r.server.setFaults({.closeConnection = true});
  reply = postBatch(r.server, {syncEvent("Z")});
  EXPECT_NE(reply.error, httplib::Error::Success);
  EXPECT_EQ(reply.status, 0);
  EXPECT_TRUE(r.server.received("Z"));  // it arrived; only the answer is missing

  const Stats s = r.server.stats();
  EXPECT_EQ(s.batches, 5);
  EXPECT_EQ(s.answered, 2);  // the 503 and the error answer; the broken bodies deliver nothing
  const json recorded = r.server.batches();
  EXPECT_EQ(recorded[2]["delivery"], "malformed");
  EXPECT_EQ(recorded[4]["delivery"], "closed");
}

TEST(SandboxServer, dropsAShareOfIdsAndAnswersThemWhenResent) {
  Running r;
  r.server.setFaults({.dropShare = 1.0});
  auto entries = entriesById(postBatch(r.server, {syncEvent("A"), getEvents("G")}).parsed());
  EXPECT_EQ(entries.size(), 1u);  // getEvents is never dropped
  EXPECT_TRUE(entries.count("G"));

  r.server.setFaults({.dropShare = 0.5});
  std::set<std::string> pending;
  for (int i = 0; i < 100; ++i) pending.insert("event-" + std::to_string(i));
  int64_t sent = 0;
  size_t firstRoundAnswered = 0;
  for (int round = 0; round < 40 && !pending.empty(); ++round) {
    std::vector<json> batch;
    for (const auto& id : pending) batch.push_back(syncEvent(id));
    sent += static_cast<int64_t>(batch.size());
    for (const auto& [id, entry] : entriesById(postBatch(r.server, batch).parsed())) {
      pending.erase(id);
    }
    if (round == 0) firstRoundAnswered = 100 - pending.size();
  }
  EXPECT_TRUE(pending.empty());
  EXPECT_GT(firstRoundAnswered, 20u);  // about half, and the same on every run
  EXPECT_LT(firstRoundAnswered, 80u);
  EXPECT_EQ(r.server.stats().duplicates, sent - 100);
}

TEST(SandboxServer, delaysAnswersAndStopEndsAPendingDelay) {
  Running r;
  r.server.setFaults({.delayMs = 300});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(postBatch(r.server, {syncEvent("A")}).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);

  r.server.setFaults({.delayMs = 600000});
  std::thread client([&] { postBatch(r.server, {syncEvent("B")}); });
  EXPECT_TRUE(test::waitUntil([&] { return r.server.received("B"); }));
  const auto stopping = std::chrono::steady_clock::now();
  r.server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 5s);
  client.join();
}

TEST(SandboxServer, consentCheckAnswersTheConfiguredValue) {
  Running r;
  Reply reply = call(r.server, "GET", "/gdpr/check/json/current");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.parsed(), json({{"needs_consent", false}}));
  r.server.setNeedsConsent(true);
  EXPECT_EQ(call(r.server, "GET", "/gdpr/check/json/current").parsed(),
            json({{"needs_consent", true}}));
  EXPECT_EQ(r.server.stats().consentChecks, 2);
  EXPECT_EQ(r.server.consentURL(), r.server.baseURL() + "/gdpr/check/json/current");
}

TEST(SandboxServer, controlEndpointsPatchFaultsAndConfiguration) {
  Running r;
  r.server.setFaults({.statusCode = 202});
  Reply reply = call(r.server, "POST", "/api/faults", R"({"dropShare": 0.25, "delayMs": 5})");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.parsed()["statusCode"], 202);  // fields not named stay as they were
  EXPECT_EQ(r.server.faults().dropShare, 0.25);
  EXPECT_EQ(r.server.faults().delayMs, 5);

  // A bad patch changes nothing, also in the fields that were valid.
  for (const char* bad :
       {R"({"statusCode": "500"})", R"({"dropShare": 2})",
        R"({"emptyBody": true, "closeConnection": 1})", R"({"bogus": true})", "[]", "not json"}) {
    reply = call(r.server, "POST", "/api/faults", bad);
    EXPECT_EQ(reply.status, 400) << bad;
    EXPECT_TRUE(reply.parsed().contains("error")) << bad;
  }
  EXPECT_EQ(toJSON(r.server.faults()), call(r.server, "GET", "/api/faults").parsed());
  EXPECT_FALSE(r.server.faults().emptyBody);

  const json qualified = json::array({{{"eventName", "buy"}}});
  reply = call(r.server, "POST", "/api/config",
               json({{"batchInterval", 100},
                     {"qualifiedEvents", qualified},
                     {"expireEvents", 0},
                     {"needsConsent", true},
                     {"faults", {{"statusCode", 200}, {"dropShare", 0}, {"delayMs", 0}}}})
                   .dump());
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.parsed()["tagsURL"], r.server.tagsURL());
  auto entries = entriesById(postBatch(r.server, {getEvents("G")}).parsed());
  EXPECT_EQ(entries["G"]["result"],
            json({{"batchInterval", 100}, {"qualifiedEvents", qualified}, {"expireEvents", 0}}));
  EXPECT_TRUE(r.server.config().needsConsent);

  EXPECT_EQ(call(r.server, "POST", "/api/config", R"({"batchInterval": "1"})").status, 400);
  EXPECT_EQ(r.server.config().batchIntervalMs, 100);
  call(r.server, "POST", "/api/config", R"({"qualifiedEvents": null})");
  entries = entriesById(postBatch(r.server, {getEvents("G")}).parsed());
  EXPECT_FALSE(entries["G"]["result"].contains("qualifiedEvents"));

  EXPECT_EQ(call(r.server, "POST", "/api/reset").status, 200);
  EXPECT_EQ(r.server.stats().batches, 0);
  EXPECT_EQ(r.server.config().batchIntervalMs, 100);  // reset forgets data, not settings
}

TEST(SandboxServer, refusesBodiesThatAreNotArraysAndKeepsServing) {
  Running r;
  const std::string bad[] = {"", "not json", "{}", "\"text\"", "[1,", "[\"\xff\"]"};
  for (const auto& body : bad) {
    const Reply reply = call(r.server, "POST", "/tags", body);
    EXPECT_EQ(reply.status, 400) << body;
    EXPECT_TRUE(reply.parsed().contains("error")) << body;
  }
  EXPECT_EQ(r.server.stats().rejected, 6);
  EXPECT_EQ(r.server.stats().batches, 0);
  EXPECT_EQ(postBatch(r.server, {1, "x", nullptr}).parsed(), json::array());
  EXPECT_EQ(postBatch(r.server, {syncEvent("A")}).status, 200);
  EXPECT_EQ(r.server.stats().requests, 4);
  EXPECT_EQ(call(r.server, "GET", "/no/such/path").status, 404);
}

TEST(SandboxServer, pageListsBatchesWithEveryTextEscaped) {
  Running r;
  json hostile = syncEvent("<b>id</b>", "<script>alert(1)</script>");
  hostile["params"]["eventData"] = {{"note", "\"quoted\" & 'single'"}};
  postBatch(r.server, {hostile, getEvents("G")});

  const Reply page = call(r.server, "GET", "/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.contentType, "text/html; charset=utf-8");
  EXPECT_NE(page.body.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  EXPECT_NE(page.body.find("&lt;b&gt;id&lt;/b&gt;"), std::string::npos);
  EXPECT_NE(page.body.find("&quot;\\&quot;quoted\\&quot; &amp; &#39;single&#39;&quot;"),
            std::string::npos);
  EXPECT_EQ(page.body.find("<script>alert"), std::string::npos);
  EXPECT_EQ(page.body.find("<b>id"), std::string::npos);
  EXPECT_NE(page.body.find("Batch 1"), std::string::npos);
  EXPECT_NE(page.body.find("fetch('/fragment'"), std::string::npos);

  const Reply fragment = call(r.server, "GET", "/fragment");
  EXPECT_EQ(fragment.status, 200);
  EXPECT_EQ(fragment.body.find("<html"), std::string::npos);
  EXPECT_NE(fragment.body.find("&lt;script&gt;"), std::string::npos);
}

TEST(SandboxServer, pageShowsWhatTheClientCouldReadOfEachAnswer) {
  const struct {
    Faults faults;
    std::string answerCell;
  } cases[] = {
      {{}, "<td class=\"answer\">result</td>"},
      {{.errorEntries = true}, "<td class=\"answer\">error: 500 Injected error (sandbox)</td>"},
      {{.statusCode = 503}, "<td class=\"answer\">result</td>"},  // the body decides
      {{.malformedBody = true}, "<td class=\"answer\">unread (malformed body)</td>"},
      {{.emptyBody = true}, "<td class=\"answer\">unread (empty body)</td>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answerCell);
    Running r;
    r.server.setFaults(c.faults);
    json event = syncEvent("A");
    event["params"]["siteId"] = "site-77";
    postBatch(r.server, {event});
    const std::string page = call(r.server, "GET", "/fragment").body;
    EXPECT_NE(page.find(c.answerCell), std::string::npos) << page;
    EXPECT_NE(page.find("<td>2024-01-01 12:00:00 UTC</td><td>site-77</td>"), std::string::npos);
  }
}

TEST(SandboxServer, countsConcurrentBatchesFromManyClients) {
  Running r;
  constexpr int kThreads = 4;
  constexpr int kBatchesEach = 25;
  std::atomic<int> answered{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < kThreads; ++t) {
    clients.emplace_back([&, t] {
      for (int b = 0; b < kBatchesEach; ++b) {
        const std::string id = std::to_string(t) + "-" + std::to_string(b);
        const Reply reply = postBatch(r.server, {syncEvent(id), syncEvent("shared")});
        if (entriesById(reply.parsed()).size() == 2) ++answered;
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(answered, kThreads * kBatchesEach);
  const Stats s = r.server.stats();
  EXPECT_EQ(s.batches, kThreads * kBatchesEach);
  EXPECT_EQ(s.events, kThreads * kBatchesEach + 1);
  EXPECT_EQ(s.duplicates, kThreads * kBatchesEach - 1);
  EXPECT_EQ(r.server.timesReceived("shared"), kThreads * kBatchesEach);
}

TEST(SandboxServer, restartsOnItsPortAndRefusesAPortInUse) {
  Running r;
  const int port = r.server.port();
  postBatch(r.server, {syncEvent("A")});
  r.server.stop();
  EXPECT_FALSE(r.server.running());
  EXPECT_NE(postBatch(r.server, {syncEvent("B")}).error, httplib::Error::Success);

  ASSERT_TRUE(r.server.start());
  EXPECT_EQ(r.server.port(), port);
  EXPECT_FALSE(r.server.start());  // already serving
  EXPECT_EQ(postBatch(r.server, {syncEvent("A")}).status, 200);
  EXPECT_EQ(r.server.stats().duplicates, 1);  // what it recorded survives a restart

  SandboxConfig taken;
  taken.port = port;
  SandboxServer second(taken);
  EXPECT_FALSE(second.start());
}

}  // namespace
}  // namespace vntr::sandbox
