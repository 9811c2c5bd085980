#include <gtest/gtest.h>
#include <httplib.h>

#include <map>
#include <tuple>

#include "SandboxServer.hpp"
#include "support/TestSupport.hpp"

namespace vntr::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

json syncEvent(const std::string& id, const std::string& name = "open") {
  return {{"method", "syncEvent"},
          {"id", id},
          {"params", {{"events", {name}}, {"eventGroup", "shop"}, {"eventData", {{"p", 1}}}}}};
}
const json kGetEvents = {{"method", "getEvents"}, {"id", "G"}, {"params", json::object()}};

struct Reply {
  int status = 0;  // 0: no answer at all
  std::string body;
  json parsed() const { return json::parse(body, nullptr, false); }
};

Reply call(const SandboxServer& server, const std::string& path, const std::string& body = {},
           bool get = false) {
  httplib::Client client("127.0.0.1", server.port());
  client.set_read_timeout(20s);
  auto result = get ? client.Get(path) : client.Post(path, body, "application/json");
  return result ? Reply{result->status, result->body} : Reply{};
}

std::map<std::string, json> answerOf(const SandboxServer& server, const std::vector<json>& batch) {
  std::map<std::string, json> entries;
  for (const json& entry : call(server, "/tags", json(batch).dump()).parsed()) {
    entries[entry.value("id", "")] = entry;
  }
  return entries;
}

// The sandbox answers by id with the configured getEvents result, counts arrivals and repeats,
// and puts each configured fault into its answers.
TEST(SandboxServer, answersCountsInjectsEachFaultAndValidatesItsControls) {
  SandboxServer server(test::sandboxConfig(500));
  ASSERT_TRUE(server.start());
  auto entries = answerOf(server, {syncEvent("A"), syncEvent("B"), kGetEvents});
  EXPECT_EQ(entries["A"], json({{"id", "A"}, {"result", {{"status", "ok"}}}}));
  EXPECT_EQ(entries["G"]["result"], json({{"batchInterval", 500}}));
  answerOf(server, {syncEvent("B"), {{"method", "ping"}, {"id", "P"}}, 1});
  EXPECT_EQ(server.stats().duplicates, 1);
  EXPECT_EQ(server.timesReceived("B"), 2);

  // Each fault, what the client receives, and what the page says the client could read of it.
  const std::tuple<Faults, std::function<void(const Reply&)>, std::string> faults[] = {
      {{.statusCode = 503}, [](const Reply& r) { EXPECT_EQ(r.status, 503); }, "result"},
      {{.errorEntries = true},
       [](const Reply& r) { EXPECT_EQ(r.parsed()[0]["error"]["code"], 500); },
       "error: 500 Injected error (sandbox)"},
      {{.malformedBody = true},
       [](const Reply& r) { EXPECT_FALSE(json::accept(r.body)); },
       "unread (malformed body)"},
      {{.emptyBody = true}, [](const Reply& r) { EXPECT_EQ(r.body, ""); }, "unread (empty body)"},
      {{.closeConnection = true}, [](const Reply& r) { EXPECT_EQ(r.status, 0); }, ""},
      {{.dropShare = 1.0}, [](const Reply& r) { EXPECT_EQ(r.parsed(), json::array()); }, ""},
  };
  for (const auto& [fault, check, cell] : faults) {
    server.setFaults(fault);
    json event = syncEvent("F");
    event["params"]["siteId"] = "site-77";
    event["params"]["eventTime"] = "20240101120000";
    check(call(server, "/tags", json({event}).dump()));
    if (cell.empty()) continue;
    const std::string page = call(server, "/fragment", "", true).body;
    EXPECT_NE(page.find("<td class=\"answer\">" + cell + "</td>"), std::string::npos) << cell;
    EXPECT_NE(page.find("<td>2024-01-01 12:00:00 UTC</td><td>site-77</td>"), std::string::npos);
  }
  EXPECT_EQ(server.stats().answered, 5);  // not from broken, closed or dropped answers
  EXPECT_EQ(server.batches()[4]["delivery"], "malformed");

  server.setFaults({.delayMs = 600000});  // stop ends a pending delay
  std::thread client([&] { call(server, "/tags", json({syncEvent("D")}).dump()); });
  EXPECT_TRUE(test::waitUntil([&] { return server.received("D"); }));
  server.stop();
  client.join();
  ASSERT_TRUE(server.start());  // on the same port, with what it recorded
  EXPECT_TRUE(server.received("A"));

  // Control endpoints patch faults and configuration all or nothing; bodies that are not arrays
  // are refused; the page escapes every text it shows.
  EXPECT_EQ(call(server, "/api/faults", R"({"dropShare": 0.25, "delayMs": 5})").status, 200);
  for (const char* bad : {R"({"statusCode": "500"})", R"({"dropShare": 2})",
                          R"({"emptyBody": true, "closeConnection": 1})", "[]", "not json"}) {
    EXPECT_EQ(call(server, "/api/faults", bad).status, 400) << bad;
  }
  EXPECT_TRUE(server.faults().dropShare == 0.25 && !server.faults().emptyBody);
  const json config = {{"batchInterval", 100},
                       {"needsConsent", true},
                       {"qualifiedEvents", {{{"eventName", "buy"}}}},
                       {"expireEvents", 0}};
  EXPECT_EQ(call(server, "/api/config", config.dump()).status, 200);
  EXPECT_EQ(call(server, "/api/config", R"({"batchInterval": "1"})").status, 400);
  EXPECT_EQ(answerOf(server, {kGetEvents})["G"]["result"]["batchInterval"], 100);
  EXPECT_EQ(call(server, "/gdpr/check/json/current", "", true).parsed()["needs_consent"], true);
  for (const std::string body : {"", "{}", "[1,", "[\"\xff\"]"}) {
    EXPECT_EQ(call(server, "/tags", body).status, 400) << body;
  }
  EXPECT_EQ(server.stats().rejected, 4);

  server.setFaults({});
  answerOf(server, {syncEvent("<b>id</b>", "<script>alert(1)</script>")});
  const std::string page = call(server, "/", "", true).body;
  EXPECT_NE(page.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  EXPECT_EQ(page.find("<script>alert"), std::string::npos);
  EXPECT_EQ(page.find("<b>id"), std::string::npos);
  EXPECT_EQ(call(server, "/api/reset").status, 200);
  EXPECT_EQ(server.stats().batches, 0);
  SandboxServer second(test::sandboxConfig(2000, server.port()));
  EXPECT_FALSE(second.start());  // the port is taken
}

}  // namespace
}  // namespace vntr::sandbox
