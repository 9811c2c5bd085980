#include <gtest/gtest.h>
#include <httplib.h>

#include <mutex>

#include "facade/GdprConsent.hpp"
#include "support/TestSupport.hpp"
#include "transport/HTTPClient.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::CapturingLog;
using test::TempDir;

constexpr const char* kCheckPath = "/gdpr/check/json/current";
const std::string kDeterminedTrue = "[Verbose] hasGdprConsent determined to be:true";
const std::string kDeterminedFalse = "[Verbose] hasGdprConsent determined to be:false";
const std::string kNotRequired = "[Verbose] GDPR consent not required.";
const std::string kStatus = "[Error] GDPR requirement check answered with HTTP status ";

struct Case {
  const char* name;
  int status;
  std::string body;
  std::optional<bool> hasResult;
  std::vector<std::string> lines;
};

// The answers themselves are the unit tests' business; here: real HTTP, whatever the status.
const std::vector<Case>& cases() {
  static const auto* const all = new std::vector<Case>{
      // clang-format off
      {"not needed", 200, R"({"needs_consent":false})", true, {kNotRequired, kDeterminedTrue}},
      {"status is not examined", 500, R"({"needs_consent":false})", true, {kStatus + "500", kNotRequired, kDeterminedTrue}},
      {"needed", 200, R"({"needs_consent":true})", std::nullopt, {kDeterminedFalse}},
      {"not JSON", 502, "Bad Gateway", std::nullopt, {kStatus + "502", "[Error] GDPR response is not JSON.", kDeterminedFalse}},
      // clang-format on
  };
  return *all;
}

/// Runs the undecidable case (nothing stored) against `endpoint` and waits for the last line.
std::vector<std::string> check(const HTTPGet& get, const std::string& endpoint,
                               std::optional<bool>* hasResult) {
  TempDir dir;
  UserDefaults defaults(dir / "UserDefaults.json");
  GdprConsent consent(defaults, get, endpoint);
  CapturingLog log;
  consent.start();
  EXPECT_TRUE(test::waitUntil([&] {
    const auto lines = log.lines();
    return !lines.empty() && lines.back().starts_with("[Verbose] hasGdprConsent determined");
  }));
  *hasResult = consent.hasGdprConsentValue();
  auto lines = log.lines();
  EXPECT_FALSE(lines.empty());
  if (!lines.empty()) lines.erase(lines.begin());  // the "Unable to determine" line
  return lines;
}

// Every kind of answer to the consent check, over the library's transport and real HTTP: one
// request each (no retry), without cookie or body; a refused connection is an error without data.
TEST(GdprConsentCheck, everyAnswerOverTheLibraryTransport) {
  std::mutex mutex;
  int status = 200, requests = 0;  // guarded by mutex
  std::string body;                // guarded by mutex
  bool sawCookieOrBody = false;    // guarded by mutex
  test::LoopbackServer server([&](httplib::Server& s) {
    s.Get(kCheckPath, [&](const httplib::Request& request, httplib::Response& response) {
      std::scoped_lock lock(mutex);
      ++requests;
      sawCookieOrBody = sawCookieOrBody || request.has_header("Cookie") || !request.body.empty();
      response.status = status;
      response.set_content(body, "application/json");
    });
  });
  HTTPClient client([] { return 5.0; });
  const HTTPGet get = [&client](const std::string& url, HTTPCompletion completion) {
    client.get(url, std::move(completion));
  };
  for (const auto& c : cases()) {
    SCOPED_TRACE(c.name);
    {
      std::scoped_lock lock(mutex);
      status = c.status;
      body = c.body;
    }
    std::optional<bool> hasResult;
    EXPECT_EQ(check(get, server.url(kCheckPath), &hasResult), c.lines);
    EXPECT_EQ(hasResult, c.hasResult);
  }
  {
    std::scoped_lock lock(mutex);
    EXPECT_EQ(requests, static_cast<int>(cases().size()));
    EXPECT_FALSE(sawCookieOrBody);
  }

  std::optional<bool> hasResult;
  const auto lines = check(get, "http://127.0.0.1:9/gdpr/check/json/current", &hasResult);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].starts_with("[Error] Error recieved during GDPR requirement check.:"))
      << lines[0];
  EXPECT_GT(lines[0].size(),
            std::string("[Error] Error recieved during GDPR requirement check.:").size());
  EXPECT_EQ(lines[1], "[Error] No data received during GDPR requirement check.");
  EXPECT_EQ(lines[2], kDeterminedFalse);
  EXPECT_EQ(hasResult, std::nullopt);
}

}  // namespace
}  // namespace vntr
