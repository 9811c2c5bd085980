// The library on real threads against real servers: servers that misbehave on purpose (whatever
// they send, or do not, time stays bounded and every stored request survives until a
// well-behaved server takes it), consent servers, and a sandbox injecting every fault.
#include <gtest/gtest.h>
#include <httplib.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <tuple>

#include "facade/TagManagerCore.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"
#include "transport/HTTPClient.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Stat = VNTRStatistic;
using sandbox::Faults;
using sandbox::SandboxServer;

class LiveServers : public testing::Test {
 protected:
  void SetUp() override {
    VNTRPreferences::sharedPreferences().setRequestTimeout(1.0);
    ASSERT_TRUE(sandbox_.start());
    app_ = std::make_unique<LiveRuntime>(dir_.path());
  }
  const RecordingDelegate& counts() { return *app_->delegate; }
  void TearDown() override {
    app_.reset();
    auto& preferences = VNTRPreferences::sharedPreferences();
    preferences.setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
    preferences.setServerURL(VNTRPreferences::kDefaultServerURL);
    preferences.setConsentCheckURL("");
  }
  /// Stores one request while batches go to `url` and waits until a batch has ended, after
  /// `served` (when given) holds.
  void storeAndSendTo(const std::string& url, const json& data = {{"k", 1}},
                      const std::function<bool()>& served = {}) {
    const int64_t before = counts().finishedBatches();
    VNTRPreferences::sharedPreferences().setServerURL(url);
    app_->fireEvents({"hostile"}, "server", data);
    EXPECT_TRUE(waitUntil(
        [&] { return (!served || served()) && counts().finishedBatches() > before; }, 30s));
    VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL() + "/unused");
  }
  std::set<std::string> storedIds() {
    std::set<std::string> ids;
    for (const auto& request : storedRequests(app_->runtime())) ids.insert(request.value("id", ""));
    return ids;
  }
  /// A well-behaved server again: every stored request is delivered.
  void expectRecovery() {
    const auto ids = storedIds();
    VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL());
    app_->runtime().reachability().updateFlags(VNTRReachability::kReachable);
    EXPECT_TRUE(waitUntil([&] { return app_->storedCount() == 0; }, 30s));
    for (const auto& id : ids) EXPECT_TRUE(sandbox_.received(id)) << id;
  }

  TempDir dir_;
  CapturingLog quiet_{false};
  SandboxServer sandbox_{sandboxConfig(100)};
  std::unique_ptr<LiveRuntime> app_;
};
using HostileServers = LiveServers;

// No setting turns certificate checks off: whichever way the URL names an untrusted TLS server,
// through the consent check's GET too, the handshake is refused and no request gets through.
// (Hosts whose environment names the certificate as trusted: ProcessFaults.)
TEST_F(HostileServers, anUntrustedCertificateIsRefusedWhateverTheURL) {
  const auto certificate = makeSelfSignedCertificate(dir_.path());
  if (!certificate) GTEST_SKIP() << "the openssl program could not make a certificate";
  LoopbackServer server([](auto&) {}, &*certificate);
  ASSERT_GT(server.port(), 0);
  // A handshake under ThreadSanitizer takes seconds: it must fail on the certificate, not time out.
  VNTRPreferences::sharedPreferences().setRequestTimeout(30);
  const std::string port = std::to_string(server.port());
  for (const std::string& url :
       {"https://127.0.0.1:" + port + "/tags", "HTTPS://127.0.0.1:" + port + "/tags",
        "https://localhost:" + port + "/tags", "https://127.0.0.1:" + port + "//tags?x=1"}) {
    storeAndSendTo(url);
  }
  EXPECT_EQ(counts()[Stat::responseReceived], 0);
  HTTPClient client([] { return 30.0; });
  std::atomic<long> code{0};
  client.get(server.url("/gdpr/check/json/current"),
             [&](auto, auto, std::optional<HTTPError> e) { code = e ? e->code : -1; });
  ASSERT_TRUE(waitUntil([&] { return code.load() != 0; }, 30s));
  EXPECT_EQ(code.load(), 60);  // CURLE_PEER_FAILED_VERIFICATION
  EXPECT_EQ(server.requests(), 0);

  expectRecovery();
}

// The consent check goes where the server is, unless its own URL is set; its answer counts
// whatever the HTTP status, and a change of the host's consent keys decides again.
TEST_F(LiveServers, consentCheckFollowsTheServerUnlessItsURLIsSet) {
  app_.reset();
  CapturingLog log;
  std::atomic<bool> needsConsent{true};
  std::atomic<int> ownChecks{0};
  LoopbackServer own([&](httplib::Server& s) {
    s.Get("/consent", [&](const auto&, httplib::Response& response) {
      ++ownChecks;
      response.status = 500;
      response.set_content(json({{"needs_consent", needsConsent.load()}}).dump(), "text/plain");
    });
  });
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setServerURL(sandbox_.tagsURL());
  for (const bool explicitURL : {false, true}) {
    SCOPED_TRACE(explicitURL);
    const auto checks = [&] {
      return explicitURL ? ownChecks.load() : sandbox_.stats().consentChecks;
    };
    sandbox_.setNeedsConsent(needsConsent = true);
    preferences.setConsentCheckURL(explicitURL ? own.url("/consent") : "");
    LiveRuntime app(dir_ / std::to_string(explicitURL),
                    {.notSubjectToGdpr = false, .consentCheckURL = ""});
    app.fireEvents({"refused"}, "g");  // the first call decides consent and asks the server
    ASSERT_TRUE(waitUntil([&] { return checks() == 1; }, 10s));
    EXPECT_FALSE(app.runtime().tagManager().hasGdprConsent());
    sandbox_.setNeedsConsent(needsConsent = false);
    app.defaults().setString("IABConsent_ParsedVendorConsents", "1");  // decide again
    ASSERT_TRUE(waitUntil([&] { return app.runtime().tagManager().hasGdprConsent(); }, 10s));
    app.fireEvents({"accepted"}, "g");
    EXPECT_TRUE(waitUntil([&] { return sandbox_.stats().events == 1 + explicitURL; }, 10s));
    EXPECT_EQ(checks(), 2);
  }
  EXPECT_EQ(sandbox_.stats().consentChecks, 2);  // none while its own URL was set
  EXPECT_EQ(log.count("[Error] GDPR requirement check answered with HTTP status 500"), 2u);
}

// No answer of any shape touches a stored request: bodies that are cut off, nested a hundred
// thousand deep, an HTML page or half the request echoed are found unusable; a server that never
// answers ends at the request timeout set in the preferences. (Huge and trickled answers end in
// the transport: HTTPClient's tests.) And event data never reaches a log line, on any path, at the
// most verbose level: those answers, requests accepted, refused as invalid, refused for consent,
// answered with errors, dropped or status 500.
TEST_F(HostileServers, noAnswerOfAnyShapeTouchesAStoredRequestOrLogsEventData) {
  const std::string marker = "M4RK3R-" + std::to_string(std::random_device{}());
  const json data = {
      {"plain", marker}, {marker, "key"}, {"nested", {{"d", {marker, {{"k", marker}}}}}}};
  std::string deepEntry = R"([{"id":"x","result":)";
  for (int i = 0; i < 100'000; ++i) deepEntry += R"({"a":)";
  deepEntry += "1" + std::string(100'000, '}') + "}]";
  const std::string bodies[] = {R"([{"id":"x","result":{"status":)",
                                std::string(100'000, '[') + std::string(100'000, ']'),
                                deepEntry,
                                "<!DOCTYPE html><html><body><h1>It works!</h1></body></html>",
                                "echo",
                                ""};  // "": never answers
  std::atomic<size_t> row{0};
  std::atomic<int> served{0};
  std::atomic<bool> done{false};
  LoopbackServer server([&](httplib::Server& s) {
    s.Post("/tags", [&](const httplib::Request& request, httplib::Response& response) {
      std::string body = bodies[row];
      ++served;
      if (body.empty()) waitUntil([&] { return done.load(); }, 30s);
      if (body == "echo") body = request.body.substr(0, request.body.size() / 2);
      response.set_content(body, body.starts_with("<") ? "text/html" : "application/json");
    });
  });
  CapturingLog log;
  for (; row < std::size(bodies); ++row) {
    SCOPED_TRACE(row.load());
    const auto started = std::chrono::steady_clock::now();
    const int seen = served;
    storeAndSendTo(server.url("/tags"), data, [&] { return served > seen; });
    EXPECT_LT(std::chrono::steady_clock::now() - started, 6s);
  }
  done = true;
  EXPECT_GE(counts()[Stat::responseUnparsable], 5);  // the five bodies, at least
  EXPECT_EQ(storedIds().size(), std::size(bodies));
  expectRecovery();

  json deep = json::object({{"k", marker}});
  for (int i = 0; i < 600; ++i) deep = json::object({{marker, deep}});
  const json refused[] = {{{"nan", std::nan("")}, {"k", marker}},
                          {{"bad", std::string("\xff\xfe") + marker}},
                          {{marker, std::numeric_limits<double>::infinity()}},
                          deep,
                          json::array({marker})};
  const Faults answers[] = {
      {}, {.errorEntries = true}, {.malformedBody = true}, {.dropShare = 0.5}, {.statusCode = 500}};
  for (const auto& faults : answers) {
    sandbox_.setFaults(faults);
    const int64_t before = counts().finishedBatches();
    for (int i = 0; i < 3; ++i) app_->fireEvents({"secure", "log"}, "privacy", data);
    for (const auto& bad : refused) app_->fireEvents({"secure"}, "privacy", bad);
    ASSERT_TRUE(waitUntil([&] { return counts().finishedBatches() > before; }, 30s));
  }
  app_->defaults().setString("IABConsent_SubjectToGDPR", "1");
  app_->defaults().setString("IABConsent_ParsedPurposeConsents", "0");
  app_->defaults().setString("IABConsent_ParsedVendorConsents", std::string(30, '0'));
  app_->fireEvents({"secure"}, "privacy", data);
  app_.reset();  // what it logs while it shuts down counts too
  const auto lines = log.lines();
  EXPECT_GT(lines.size(), 50u);  // the paths above did log
  for (const auto& line : lines) EXPECT_EQ(line.find("M4RK3R"), std::string::npos) << line;
}

// The sandbox tag server itself, which the tests above and the demo rely on.
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
  SandboxServer server(sandboxConfig(500));
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
  EXPECT_TRUE(waitUntil([&] { return server.received("D"); }));
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
  SandboxServer second(sandboxConfig(2000, server.port()));
  EXPECT_FALSE(second.start());  // the port is taken
}

}  // namespace
}  // namespace vntr::test
