#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <pthread.h>

#include <future>
#include <limits>
#include <stdexcept>

#include "support/TestSupport.hpp"
#include "transport/HTTPClient.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;
constexpr size_t kCap = HTTPClient::kMaxResponseBytes;

struct Outcome {
  std::optional<std::string> data;
  std::optional<HTTPURLResponse> response;
  std::optional<HTTPError> error;
  std::string threadName;
};

/// One call's completion, waited for; a completion that comes too late finds its promise alive.
Outcome send(HTTPClient& client, const std::string& method, std::string body,
             const std::string& url) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  HTTPCompletion completion = [promise](auto data, auto response, auto error) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    promise->set_value({std::move(data), std::move(response), std::move(error), name});
  };
  method == "GET" ? client.get(url, std::move(completion))
                  : client.post(std::move(body), url, std::move(completion));
  if (future.wait_for(10s) == std::future_status::ready) return future.get();
  ADD_FAILURE() << "no completion";
  return {};
}

/// A loopback server with one route per kind of answer; records the requests it answers. "/stall"
/// holds its answer until the server is destroyed, "/trickle" sends a byte at a time until then.
struct Server {
  Server()
      : http([this](httplib::Server& s) {
          s.set_keep_alive_max_count(1000);
          s.Post("/echo", [this](const auto& rq, auto& rs) { answer(rq, rs, 200, rq.body); });
          s.Get("/echo", [this](const auto& rq, auto& rs) { answer(rq, rs, 200, "{\"get\":1}"); });
          s.Post("/fail", [this](const auto& rq, auto& rs) { answer(rq, rs, 500, "broke"); });
          s.Post("/empty", [this](const auto& rq, auto& rs) { answer(rq, rs, 204, ""); });
          s.Post("/moved", [](const auto&, auto& rs) {
            rs.set_redirect("/echo", 307);
            rs.set_header("Retry-After", "7");
            rs.set_content("moved", "text/plain");
          });
          s.Post("/cap",
                 [](const auto&, auto& rs) { rs.set_content(std::string(kCap, 'c'), "a"); });
          s.Post("/huge",
                 [](const auto&, auto& rs) { rs.set_content(std::string(kCap + 1, 'h'), "a"); });
          s.Post("/huge-chunked", [](const auto&, httplib::Response& rs) {
            rs.set_chunked_content_provider("a", [](size_t offset, httplib::DataSink& sink) {
              const std::string chunk(64 * 1024, 'k');
              return offset > 2 * kCap ? (sink.done(), true)
                                       : sink.write(chunk.data(), chunk.size());
            });
          });
          s.Post("/stall", [this](const auto& rq, auto& rs) {
            answer(rq, rs, 200, "late");
            waitUntil([this] { return released.load(); }, 20s);
          });
          s.Post("/trickle", [this](const auto&, httplib::Response& rs) {
            rs.set_content_provider(1000, "a", [this](size_t, size_t, httplib::DataSink& sink) {
              return !waitUntil([this] { return released.load(); }, 50ms) && sink.write("[", 1);
            });
          });
        }) {}
  ~Server() { released = true; }
  std::vector<httplib::Request> received() {
    std::scoped_lock lock(mutex);
    return requests;
  }
  void answer(const httplib::Request& rq, httplib::Response& rs, int status, std::string body) {
    std::scoped_lock lock(mutex);
    requests.push_back(rq);
    rs.status = status;
    if (!body.empty()) rs.set_content(body, "application/json");
  }

  std::mutex mutex;
  std::vector<httplib::Request> requests;  // guarded by mutex
  std::atomic<bool> released{false};
  test::LoopbackServer http;  // last: stopped before the members it calls
};

// Bodies go out as given (binary, NUL, past curl's 100-continue threshold) and answers come back
// uninterpreted, whatever their status; a 307 is the answer, not followed. Transport failures
// and oversized answers (announced or not) give an error without a response; a stalled or
// trickling server ends at the request timeout; nonsense timeouts fall back to the default. A URL
// that does not parse fails before the call returns, on the caller's thread.
TEST(HTTPClient, handsBackEveryAnswerUninterpretedAndEveryFailureAsAnError) {
  Server server;
  std::string big =
      "[{\"id\":\"1\"}]" + std::string("\0\xff\xfe", 3) + std::string(1536 * 1024, 'b');
  const std::string refused = "http://127.0.0.1:9/tags";
  std::atomic<double> timeout{10};
  HTTPClient client([&] { return timeout.load(); });
  struct Case {
    const char* method;
    std::string path, body;
    int status;  // 0: no status line arrived
    std::optional<std::string> data;
    long code = 0;  // 0: no error
    double timeout = 10;
  };
  constexpr long kURLError = 9999;
  const Case cases[] = {
      {"POST", "/echo", big, 200, big},
      {"POST", "/fail", "{}", 500, "broke"},
      {"POST", "/empty", "", 204, std::nullopt},
      {"POST", "/moved", "[1]", 307, "moved"},  // a redirect is the answer: nothing re-posted
      {"GET", "/echo", "", 200, "{\"get\":1}"},
      {"POST", "/cap", "{}", 200, std::string(kCap, 'c')},
      {"POST", "/huge", "{}", 0, std::nullopt, CURLE_FILESIZE_EXCEEDED},
      {"POST", "/huge-chunked", "{}", 0, std::nullopt, CURLE_FILESIZE_EXCEEDED},
      {"POST", refused, "{}", 0, std::nullopt, CURLE_COULDNT_CONNECT},
      {"POST", "/stall", "{}", 0, std::nullopt, CURLE_OPERATION_TIMEDOUT, 0.3},
      // The bytes that came before the timeout are handed back with their status and the error.
      {"POST", "/trickle", "{}", 200, "", CURLE_OPERATION_TIMEDOUT, 0.3},
      {"POST", "/echo", "[0]", 200, "[0]", 0, 0.0},
      {"POST", "/echo", "[-]", 200, "[-]", 0, -1.0},
      {"POST", "/echo", "[n]", 200, "[n]", 0, std::numeric_limits<double>::quiet_NaN()},
      {"GET", "not a url", "", 0, std::nullopt, kURLError},
      {"POST", "", "{}", 0, std::nullopt, kURLError},
      {"POST", "http://exa mple.com/tags", "{}", 0, std::nullopt, kURLError},
      {"POST", "nosuchscheme://host/", "{}", 0, std::nullopt, kURLError},
      {"POST", std::string("http://127.0.0.1/\0tail", 22), "{}", 0, std::nullopt, kURLError},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    timeout = c.timeout;
    const std::string url = c.path[0] == '/' ? server.http.url(c.path) : c.path;
    const Outcome outcome = send(client, c.method, c.body, url);
    EXPECT_EQ(outcome.threadName == "VNTRTransport", c.code != kURLError);
    // Not EXPECT_EQ: a 1.5 MiB diff is no help.
    EXPECT_TRUE(c.data == "" ? outcome.data.value_or("[").starts_with("[")
                             : outcome.data == c.data);
    EXPECT_EQ(outcome.error ? outcome.error->code : 0, c.code);
    if (outcome.error) {
      EXPECT_EQ(outcome.error->domain, c.code == kURLError ? "URL Error" : "CURL");
      EXPECT_TRUE(c.code != kURLError ||
                  outcome.error->localizedDescription == "URL could not be formed from string");
    }
    ASSERT_EQ(outcome.response.has_value(), c.status != 0);
    if (!outcome.response) continue;
    EXPECT_EQ(outcome.response->statusCode, c.status);
    EXPECT_EQ(outcome.response->url, server.http.url(c.path));
    EXPECT_EQ(outcome.response->retryAfterSeconds,
              c.path == "/moved" ? std::optional(7.0) : std::nullopt);
  }
  for (const auto& request : server.received()) {
    SCOPED_TRACE(request.method + " " + request.path);
    const bool post = request.method == "POST";
    EXPECT_EQ(request.get_header_value("Content-Type"), post ? "application/json" : "");
    EXPECT_FALSE(request.has_header("Expect") || request.has_header("Cookie"));
    EXPECT_TRUE(post || request.body.empty());
    EXPECT_NE(request.body, "[1]");  // the redirected body went nowhere
  }
}

// Destroying the client completes unfinished transfers, and posts made meanwhile, with an error.
// Posts from several threads each complete exactly once with their own answer, over a few
// shared connections; a throwing completion is logged and the transport thread carries on.
TEST(HTTPClient, everyPostCompletesExactlyOnceEvenWhenTheClientGoes) {
  Server server;
  std::vector<Outcome> outcomes;  // read once the destructor has joined the transport thread
  {
    HTTPClient client([] { return 60.0; });
    const HTTPCompletion record = [&](auto data, auto response, auto error) {
      outcomes.push_back({data, response, error, ""});
    };
    // Like a requester that fires again on failure: the post made while the client shuts down
    // must still be answered, not lost or left waiting.
    client.post("{}", server.http.url("/stall"), [&](auto data, auto response, auto error) {
      client.post("{}", server.http.url("/echo"), record);
      record(data, response, error);
    });
    ASSERT_TRUE(waitUntil([&] { return server.received().size() == 1; }));
  }
  ASSERT_EQ(outcomes.size(), 2u);
  for (const auto& outcome : outcomes) {
    EXPECT_TRUE(!outcome.data && !outcome.response &&
                outcome.error.value_or(HTTPError{}).domain == "CURL");
  }
  // Destroyed from its own completion: the thread cannot join itself and must still wind down.
  std::atomic<bool> destroyed{false};
  auto* owned = new HTTPClient([] { return 10.0; });
  owned->post("{}", server.http.url("/echo"), [&, owned](auto, auto, auto) {
    delete owned;
    destroyed = true;
  });
  EXPECT_TRUE(waitUntil([&] { return destroyed.load(); }));
  test::CapturingLog log;
  constexpr int kThreads = 4, kEach = 25;
  std::mutex mutex;
  std::vector<std::string> answers(kThreads * kEach);  // guarded by mutex; a second call doubles
  std::atomic<int> calls{0};
  {
    HTTPClient client([] { return 20.0; });
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&, t] {
        for (int id = t * kEach; id < (t + 1) * kEach; ++id) {
          client.post("[" + std::to_string(id) + "]", server.http.url("/echo"),
                      [&, id](auto data, auto, auto) {
                        ++calls;
                        std::scoped_lock lock(mutex);
                        answers[id] += data.value_or("none");
                        if (id == 0) throw std::runtime_error("completion failed");
                      });
        }
      });
    }
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(waitUntil([&] { return calls == kThreads * kEach; }));
    EXPECT_LE(client.connectionsOpened(), 6);
  }
  EXPECT_EQ(log.count("[Error] Unexpected exception on a library thread: completion failed"), 1u);
  std::scoped_lock lock(mutex);  // the thread is joined: a second call would have come by now
  for (int id = 0; id < kThreads * kEach; ++id)
    EXPECT_EQ(answers[id], "[" + std::to_string(id) + "]");
}

}  // namespace
}  // namespace vntr
