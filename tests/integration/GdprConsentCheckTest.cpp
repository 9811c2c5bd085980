#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

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

/// A consent-check endpoint on 127.0.0.1 answering with the status and body set by the test.
class CheckServer {
 public:
  CheckServer() {
    server_.Get(kCheckPath, [this](const httplib::Request& request, httplib::Response& response) {
      std::scoped_lock lock(mutex_);
      ++requests_;
      sawCookieOrBody_ = sawCookieOrBody_ || request.has_header("Cookie") || !request.body.empty();
      response.status = status_;
      response.set_content(body_, "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    test::waitUntil([this] { return server_.is_running(); });
  }
  ~CheckServer() {
    server_.stop();
    thread_.join();
  }
  void answer(int status, std::string body) {
    std::scoped_lock lock(mutex_);
    status_ = status;
    body_ = std::move(body);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + kCheckPath; }
  int port() const { return port_; }
  int requests() {
    std::scoped_lock lock(mutex_);
    return requests_;
  }
  bool sawCookieOrBody() {
    std::scoped_lock lock(mutex_);
    return sawCookieOrBody_;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  int status_ = 200;              // guarded by mutex_
  std::string body_;              // guarded by mutex_
  int requests_ = 0;              // guarded by mutex_
  bool sawCookieOrBody_ = false;  // guarded by mutex_
};

/// A GET over cpp-httplib's client, each on a thread of its own that is joined on destruction;
/// keeps these tests independent of the library's transport.
class HttplibGet {
 public:
  ~HttplibGet() {
    std::scoped_lock lock(mutex_);
    for (auto& thread : threads_) thread.join();
  }
  HTTPGet function() {
    return [this](const std::string& url, HTTPCompletion completion) {
      std::scoped_lock lock(mutex_);
      threads_.emplace_back([url, completion = std::move(completion)] {
        const auto split = url.find('/', std::string("http://").size());
        httplib::Client client(url.substr(0, split));
        client.set_connection_timeout(5s);
        client.set_read_timeout(5s);
        const auto result = client.Get(url.substr(split));
        if (!result) {
          completion(std::nullopt, std::nullopt,
                     HTTPError{"httplib", static_cast<long>(result.error()),
                               httplib::to_string(result.error())});
          return;
        }
        completion(result->body, HTTPURLResponse{url, result->status}, std::nullopt);
      });
    };
  }

 private:
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

struct Case {
  const char* name;
  int status;
  std::string body;
  std::optional<bool> hasResult;
  std::vector<std::string> lines;
};

const std::vector<Case>& cases() {
  static const auto* const all = new std::vector<Case>{
      {"not needed",
       200,
       R"({"needs_consent":false})",
       true,
       {"[Verbose] GDPR consent not required.", kDeterminedTrue}},
      {"status is not examined",
       500,
       R"({"needs_consent":false})",
       true,
       {"[Error] GDPR requirement check answered with HTTP status 500",
        "[Verbose] GDPR consent not required.", kDeterminedTrue}},
      {"needed", 200, R"({"needs_consent":true})", std::nullopt, {kDeterminedFalse}},
      {"silent", 200, "{}", std::nullopt, {kDeterminedFalse}},
      {"badly formatted",
       200,
       R"({"needs_consent":false,"x":"y"})",
       std::nullopt,
       {"[Error] Badly formatted reponse for GDPR check.", kDeterminedFalse}},
      {"not JSON",
       502,
       "Bad Gateway",
       std::nullopt,
       {"[Error] GDPR requirement check answered with HTTP status 502",
        "[Error] GDPR response is not JSON.", kDeterminedFalse}},
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

TEST(GdprConsentCheck, everyAnswerOverHttpOnLoopback) {
  CheckServer server;
  HttplibGet get;
  for (const auto& c : cases()) {
    SCOPED_TRACE(c.name);
    server.answer(c.status, c.body);
    std::optional<bool> hasResult;
    EXPECT_EQ(check(get.function(), server.url(), &hasResult), c.lines);
    EXPECT_EQ(hasResult, c.hasResult);
  }
  EXPECT_EQ(server.requests(), static_cast<int>(cases().size()));  // one each, no retry
}

TEST(GdprConsentCheck, everyAnswerThroughTheLibraryTransport) {
  CheckServer server;
  HTTPClient client([] { return 5.0; });
  const HTTPGet get = [&client](const std::string& url, HTTPCompletion completion) {
    client.get(url, std::move(completion));
  };
  for (const auto& c : cases()) {
    SCOPED_TRACE(c.name);
    server.answer(c.status, c.body);
    std::optional<bool> hasResult;
    EXPECT_EQ(check(get, server.url(), &hasResult), c.lines);
    EXPECT_EQ(hasResult, c.hasResult);
  }
  EXPECT_EQ(server.requests(), static_cast<int>(cases().size()));
  EXPECT_FALSE(server.sawCookieOrBody());
}

TEST(GdprConsentCheck, refusedConnectionIsAnErrorWithoutData) {
  std::string url;
  {
    CheckServer closed;  // learn a free port, then close it
    url = closed.url();
  }
  HTTPClient client([] { return 5.0; });
  const HTTPGet get = [&client](const std::string& u, HTTPCompletion completion) {
    client.get(u, std::move(completion));
  };
  std::optional<bool> hasResult;
  const auto lines = check(get, url, &hasResult);
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
