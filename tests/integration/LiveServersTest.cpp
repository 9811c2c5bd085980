// The library on real threads against real servers: servers that misbehave on purpose (whatever
// they send, or do not, time stays bounded and every stored request survives until a
// well-behaved server takes it), consent servers, and a sandbox injecting every fault.
#include <gtest/gtest.h>
#include <httplib.h>

#include <cmath>
#include <limits>
#include <random>

#include "facade/TagManagerCore.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"
#include "transport/HTTPClient.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Stat = VNTRStatistic;

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
  sandbox::SandboxServer sandbox_{sandboxConfig(100)};
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
  const sandbox::Faults answers[] = {
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

}  // namespace
}  // namespace vntr::test
