#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

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

/// Collects completions; shared with them so a late completion never outlives its target.
class Outcomes {
 public:
  HTTPCompletion completion() {
    return
        [state = state_](std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                         std::optional<HTTPError> error) {
          char name[16] = {};
          pthread_getname_np(pthread_self(), name, sizeof(name));
          std::scoped_lock lock(state->mutex);
          state->outcomes.push_back({std::move(data), std::move(response), std::move(error), name});
        };
  }
  std::vector<Outcome> waitFor(size_t count, std::chrono::milliseconds timeout = 10s) {
    waitUntil([&] { return size() >= count; }, timeout);
    std::scoped_lock lock(state_->mutex);
    return state_->outcomes;
  }
  size_t size() const {
    std::scoped_lock lock(state_->mutex);
    return state_->outcomes.size();
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Outcome> outcomes;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

Outcome send(HTTPClient& client, const std::string& method, std::string body,
             const std::string& url) {
  Outcomes outcomes;
  if (method == "GET") {
    client.get(url, outcomes.completion());
  } else {
    client.post(std::move(body), url, outcomes.completion());
  }
  auto all = outcomes.waitFor(1);
  EXPECT_EQ(all.size(), 1u);
  return all.empty() ? Outcome{} : all.front();
}

/// A loopback server with one route per kind of answer; records what it receives. "/stall"
/// holds its answer until the server is destroyed.
class Server {
 public:
  Server()
      : server_([this](httplib::Server& s) {
          s.set_keep_alive_max_count(1000);
          s.Post("/echo", [this](const auto& rq, auto& rs) { record(rq, rs, 200, rq.body); });
          s.Get("/echo", [this](const auto& rq, auto& rs) { record(rq, rs, 200, "{\"get\":1}"); });
          s.Post("/fail", [this](const auto& rq, auto& rs) { record(rq, rs, 500, "broke"); });
          s.Post("/empty", [this](const auto& rq, auto& rs) { record(rq, rs, 204, ""); });
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
          s.Post("/stall", [this](const auto&, auto& rs) {
            std::unique_lock lock(mutex_);
            ++stalled_;
            released_.wait_for(lock, 20s, [this] { return released; });
            rs.set_content("late", "text/plain");
          });
        }) {}
  ~Server() {
    {
      std::scoped_lock lock(mutex_);
      released = true;
    }
    released_.notify_all();
  }
  std::string url(const std::string& path) const { return server_.url(path); }
  std::vector<httplib::Request> received() {
    std::scoped_lock lock(mutex_);
    return received_;
  }
  int stalled() {
    std::scoped_lock lock(mutex_);
    return stalled_;
  }

 private:
  void record(const httplib::Request& request, httplib::Response& response, int status,
              const std::string& body) {
    {
      std::scoped_lock lock(mutex_);
      received_.push_back(request);
    }
    response.status = status;
    if (!body.empty()) response.set_content(body, "application/json");
  }
  std::mutex mutex_;
  std::condition_variable released_;
  bool released = false;                    // guarded by mutex_
  int stalled_ = 0;                         // guarded by mutex_
  std::vector<httplib::Request> received_;  // guarded by mutex_
  test::LoopbackServer server_;             // last: stopped before the members it calls
};

TEST(HTTPClient, unformableURLsFailSynchronouslyOnTheCallersThread) {
  HTTPClient client([] { return 5.0; });
  const std::string urls[] = {"",
                              "not a url",
                              "tags.example.com/tags",
                              "://no-scheme",
                              "http://exa mple.com/tags",
                              "nosuchscheme://host/",
                              std::string("http://127.0.0.1/\0tail", 22)};
  for (const auto& url : urls) {
    for (const char* method : {"POST", "GET"}) {
      SCOPED_TRACE(url + " " + method);
      std::vector<Outcome> outcomes;
      const auto completion = [&](auto data, auto response, auto error) {
        outcomes.push_back({data, response, error, ""});
      };
      method[0] == 'G' ? client.get(url, completion) : client.post("{}", url, completion);
      ASSERT_EQ(outcomes.size(), 1u);  // before the call returned, on this thread
      EXPECT_FALSE(outcomes[0].data || outcomes[0].response);
      ASSERT_TRUE(outcomes[0].error);
      EXPECT_EQ(outcomes[0].error->domain, "URL Error");
      EXPECT_EQ(outcomes[0].error->code, 9999);
      EXPECT_EQ(outcomes[0].error->localizedDescription, "URL could not be formed from string");
    }
  }
  EXPECT_EQ(client.connectionsOpened(), 0);
}

// Bodies go out as given (binary, NUL, past curl's 100-continue threshold) and answers come back
// uninterpreted, whatever their status; a 307 repeats the POST where the response says. Transport
// failures, oversized answers (announced or not) and a stalled server give an error without a
// response; nonsense timeouts fall back to the default.
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
    int status;  // 0: an error, with `code`
    std::optional<std::string> data;
    long code = 0;
    double timeout = 10;
  };
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
      {"POST", "/echo", "[0]", 200, "[0]", 0, 0.0},
      {"POST", "/echo", "[-]", 200, "[-]", 0, -1.0},
      {"POST", "/echo", "[n]", 200, "[n]", 0, std::numeric_limits<double>::quiet_NaN()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    timeout = c.timeout;
    const std::string url = c.path[0] == '/' ? server.url(c.path) : c.path;
    const Outcome outcome = send(client, c.method, c.body, url);
    EXPECT_EQ(outcome.threadName, "VNTRTransport");
    EXPECT_TRUE(outcome.data == c.data);  // not EXPECT_EQ: a 1.5 MiB diff is no help
    if (c.status == 0) {
      EXPECT_FALSE(outcome.response);
      ASSERT_TRUE(outcome.error);
      EXPECT_EQ(outcome.error->domain, "CURL");
      EXPECT_EQ(outcome.error->code, c.code);
      continue;
    }
    EXPECT_FALSE(outcome.error);
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->statusCode, c.status);
    EXPECT_EQ(outcome.response->url, server.url(c.path));
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
  EXPECT_EQ(server.received().front().body.size(), big.size());
}

TEST(HTTPClient, destructionCompletesUnfinishedTransfersWithAnError) {
  Server server;
  Outcomes outcomes;
  {
    HTTPClient client([] { return 60.0; });
    // Like a requester that fires again on failure: the post made while the client shuts down
    // must still be answered, not lost or left waiting.
    auto retry = outcomes.completion();
    client.post("{}", server.url("/stall"),
                [&client, &server, retry](auto data, auto response, auto error) {
                  client.post("{}", server.url("/echo"), retry);
                  retry(std::move(data), std::move(response), std::move(error));
                });
    ASSERT_TRUE(waitUntil([&] { return server.stalled() == 1; }));
  }
  const auto all = outcomes.waitFor(2, 0ms);  // the destructor joined the transport thread
  ASSERT_EQ(all.size(), 2u);
  for (const auto& outcome : all) {
    EXPECT_FALSE(outcome.data || outcome.response);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, "CURL");
  }
  // Destroyed from its own completion: the thread cannot join itself and must still wind down.
  std::atomic<bool> destroyed{false};
  auto* owned = new HTTPClient([] { return 10.0; });
  owned->post("{}", server.url("/echo"), [&, owned](auto, auto, auto) {
    delete owned;
    destroyed = true;
  });
  EXPECT_TRUE(waitUntil([&] { return destroyed.load(); }));
}

// Posts from several threads each complete exactly once with their own answer, over a few
// shared connections; sequential posts reuse one; a throwing completion is logged and the
// transport thread carries on.
TEST(HTTPClient, everyPostCompletesExactlyOnceOverSharedConnections) {
  Server server;
  test::CapturingLog log;
  {
    HTTPClient sequential([] { return 10.0; });
    std::atomic<bool> thrown{false};
    sequential.post("{}", server.url("/echo"), [&](auto, auto, auto) {
      thrown = true;
      throw std::runtime_error("completion failed");
    });
    ASSERT_TRUE(waitUntil([&] { return thrown.load(); }));
    for (int i = 0; i < 4; ++i)
      EXPECT_EQ(send(sequential, "POST", "[4]", server.url("/echo")).data, "[4]");
    EXPECT_EQ(sequential.connectionsOpened(), 1);
  }
  EXPECT_EQ(log.count("[Error] Unexpected exception on a library thread: completion failed"), 1u);

  constexpr int kThreads = 4, kEach = 25;
  std::mutex mutex;
  std::map<int, int> calls;       // guarded by mutex
  std::map<int, bool> echoedOwn;  // guarded by mutex
  {
    HTTPClient client([] { return 20.0; });
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&, t] {
        for (int i = 0; i < kEach; ++i) {
          const int id = t * kEach + i;
          const std::string body = "[" + std::to_string(id) + "]";
          client.post(body, server.url("/echo"), [&, id, body](auto data, auto, auto) {
            std::scoped_lock lock(mutex);
            ++calls[id];
            echoedOwn[id] = data == body;
          });
        }
      });
    }
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(waitUntil([&] {
      std::scoped_lock lock(mutex);
      return calls.size() == kThreads * kEach;
    }));
    EXPECT_LE(client.connectionsOpened(), 6);
  }
  std::scoped_lock lock(mutex);  // the thread is joined: a second call would have come by now
  for (const auto& [id, count] : calls) {
    EXPECT_EQ(count, 1) << id;
    EXPECT_TRUE(echoedOwn[id]) << id;
  }
}

}  // namespace
}  // namespace vntr
