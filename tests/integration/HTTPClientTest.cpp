#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.hpp"
#include "transport/HTTPClient.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;

constexpr size_t kCap = HTTPClient::kMaxResponseBytes;

struct ReceivedRequest {
  std::string method;
  std::string path;
  std::string body;
  httplib::Headers headers;
};

/// An HTTP server on 127.0.0.1 (port picked by the OS) that records what it receives.
/// "/stall" holds its answer until the server is destroyed.
class LocalServer {
 public:
  LocalServer() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server_.set_keep_alive_max_count(1000);
    auto record = [this](const httplib::Request& request) {
      std::scoped_lock lock(mutex_);
      received_.push_back({request.method,
                           request.path,
                           request.body,
                           {request.headers.begin(), request.headers.end()}});
    };
    server_.Post("/echo", [record](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.set_content(request.body, "application/json");
    });
    server_.Get("/echo", [record](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.set_content(R"({"needs_consent":false})", "application/json");
    });
    server_.Post("/fail", [record](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.status = 500;
      response.set_content("server broke", "text/plain");
    });
    server_.Post("/empty", [record](const httplib::Request& request, httplib::Response& response) {
      record(request);
      response.status = 204;
    });
    server_.Post("/moved", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/echo", 307);
      response.set_header("Retry-After", "7");
      response.set_content("moved", "text/plain");
    });
    server_.Post("/cap", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(std::string(kCap, 'c'), "text/plain");
    });
    server_.Post("/huge", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(std::string(kCap + 1, 'h'), "text/plain");
    });
    server_.Post("/huge-chunked", [](const httplib::Request&, httplib::Response& response) {
      // No Content-Length, so only the amount actually received can reveal the size.
      response.set_chunked_content_provider(
          "text/plain",
          [chunk = std::string(64 * 1024, 'k')](size_t offset, httplib::DataSink& sink) {
            if (offset > 2 * kCap) {
              sink.done();
              return true;
            }
            return sink.write(chunk.data(), chunk.size());
          });
    });
    server_.Post("/stall", [this](const httplib::Request&, httplib::Response& response) {
      std::unique_lock lock(mutex_);
      ++stalled_;
      released_.wait_for(lock, 20s, [this] { return released; });
      response.set_content("late", "text/plain");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    test::waitUntil([this] { return server_.is_running(); });
  }

  ~LocalServer() {
    {
      std::scoped_lock lock(mutex_);
      released = true;
    }
    released_.notify_all();
    server_.stop();
    thread_.join();
  }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::vector<ReceivedRequest> received() {
    std::scoped_lock lock(mutex_);
    return received_;
  }
  int stalled() {
    std::scoped_lock lock(mutex_);
    return stalled_;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable released_;
  bool released = false;                   // guarded by mutex_
  int stalled_ = 0;                        // guarded by mutex_
  std::vector<ReceivedRequest> received_;  // guarded by mutex_
};

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
  /// Waits (bounded) for `count` completions and returns all that arrived.
  std::vector<Outcome> waitFor(size_t count, std::chrono::milliseconds timeout = 10s) {
    test::waitUntil([&] { return size() >= count; }, timeout);
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

Outcome postAndWait(HTTPClient& client, std::string body, const std::string& url) {
  Outcomes outcomes;
  client.post(std::move(body), url, outcomes.completion());
  auto all = outcomes.waitFor(1);
  EXPECT_EQ(all.size(), 1u);
  return all.empty() ? Outcome{} : all.front();
}

TEST(HTTPClient, unformableURLsFailSynchronouslyOnTheCallersThread) {
  HTTPClient client([] { return 5.0; });
  const std::vector<std::string> bad = {"",
                                        "not a url",
                                        "tags.example.com/tags",
                                        "://no-scheme",
                                        "http://exa mple.com/tags",
                                        "nosuchscheme://host/",
                                        std::string("http://127.0.0.1/\0tail", 22)};
  for (const auto& url : bad) {
    for (bool usePost : {true, false}) {
      SCOPED_TRACE(url + (usePost ? " (post)" : " (get)"));
      int calls = 0;
      std::thread::id calledOn;
      auto completion = [&](std::optional<std::string> data,
                            std::optional<HTTPURLResponse> response,
                            std::optional<HTTPError> error) {
        ++calls;
        calledOn = std::this_thread::get_id();
        EXPECT_FALSE(data);
        EXPECT_FALSE(response);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain, "URL Error");
        EXPECT_EQ(error->code, 9999);
        EXPECT_EQ(error->localizedDescription, "URL could not be formed from string");
      };
      if (usePost) {
        client.post("{}", url, completion);
      } else {
        client.get(url, completion);
      }
      EXPECT_EQ(calls, 1);  // before the call returned
      EXPECT_EQ(calledOn, std::this_thread::get_id());
    }
  }
  EXPECT_EQ(client.connectionsOpened(), 0);
}

TEST(HTTPClient, postsTheBodyAsGivenAndHandsBackTheReplyUninterpreted) {
  LocalServer server;
  HTTPClient client([] { return 10.0; });

  // Binary bytes, an embedded NUL, and more than curl's "Expect: 100-continue" threshold.
  std::string body = "[{\"id\":\"1\"}]";
  body += std::string("\0\xff\xfe", 3);
  body += std::string(1536 * 1024, 'b');
  Outcome ok = postAndWait(client, body, server.url("/echo"));
  EXPECT_EQ(ok.threadName, "VNTRTransport");
  EXPECT_FALSE(ok.error);
  ASSERT_TRUE(ok.response);
  EXPECT_EQ(ok.response->statusCode, 200);
  EXPECT_EQ(ok.response->url, server.url("/echo"));
  ASSERT_TRUE(ok.data);
  EXPECT_TRUE(*ok.data == body);  // not EXPECT_EQ: a 1.5 MiB diff is no help

  Outcome failed = postAndWait(client, "{}", server.url("/fail"));
  EXPECT_FALSE(failed.error);
  ASSERT_TRUE(failed.response);
  EXPECT_EQ(failed.response->statusCode, 500);
  EXPECT_EQ(failed.data, "server broke");

  Outcome empty = postAndWait(client, "", server.url("/empty"));
  EXPECT_FALSE(empty.error);
  ASSERT_TRUE(empty.response);
  EXPECT_EQ(empty.response->statusCode, 204);
  EXPECT_FALSE(empty.data);

  // A redirect is the answer itself: nothing is re-posted to the place it names.
  Outcome moved = postAndWait(client, "[1]", server.url("/moved"));
  EXPECT_FALSE(moved.error);
  ASSERT_TRUE(moved.response);
  EXPECT_EQ(moved.response->statusCode, 307);
  EXPECT_EQ(moved.response->url, server.url("/moved"));
  EXPECT_EQ(moved.response->retryAfterSeconds, 7.0);
  EXPECT_EQ(moved.data, "moved");

  const auto received = server.received();
  ASSERT_EQ(received.size(), 3u);
  const std::vector<std::string> paths = {"/echo", "/fail", "/empty"};
  const std::vector<std::string> bodies = {body, "{}", ""};
  for (size_t i = 0; i < received.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    EXPECT_EQ(received[i].method, "POST");
    EXPECT_EQ(received[i].path, paths[i]);
    EXPECT_TRUE(received[i].body == bodies[i]);
    EXPECT_EQ(received[i].headers.count("Content-Type"), 1u);
    EXPECT_EQ(received[i].headers.find("Content-Type")->second, "application/json");
    EXPECT_EQ(received[i].headers.count("Expect"), 0u);
    EXPECT_EQ(received[i].headers.count("Cookie"), 0u);
  }
}

TEST(HTTPClient, getSendsAPlainRequestWithoutBodyOrContentType) {
  LocalServer server;
  HTTPClient client([] { return 10.0; });
  Outcomes outcomes;
  client.get(server.url("/echo"), outcomes.completion());
  const auto all = outcomes.waitFor(1);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_FALSE(all[0].error);
  ASSERT_TRUE(all[0].response);
  EXPECT_EQ(all[0].response->statusCode, 200);
  EXPECT_EQ(all[0].data, R"({"needs_consent":false})");

  const auto received = server.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].method, "GET");
  EXPECT_TRUE(received[0].body.empty());
  EXPECT_EQ(received[0].headers.count("Content-Type"), 0u);
  EXPECT_EQ(received[0].headers.count("Cookie"), 0u);
}

TEST(HTTPClient, transportFailuresAndOversizedBodiesGiveAnErrorWithoutAResponse) {
  // A bound socket that never listens: connecting to it is refused, and nobody else can take
  // the port while the test runs.
  const int closed = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(closed, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(closed, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  socklen_t length = sizeof(address);
  ASSERT_EQ(::getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string refusedURL = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));

  LocalServer server;
  HTTPClient client([] { return 10.0; });

  Outcome refused = postAndWait(client, "{}", refusedURL + "/tags");
  ::close(closed);
  EXPECT_FALSE(refused.data);
  EXPECT_FALSE(refused.response);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->domain, "CURL");
  EXPECT_EQ(refused.error->code, CURLE_COULDNT_CONNECT);
  EXPECT_FALSE(refused.error->localizedDescription.empty());

  Outcome atCap = postAndWait(client, "{}", server.url("/cap"));
  EXPECT_FALSE(atCap.error);
  ASSERT_TRUE(atCap.data);
  EXPECT_EQ(atCap.data->size(), kCap);

  // Announced by Content-Length, and discovered only while reading chunks.
  for (const std::string path : {"/huge", "/huge-chunked"}) {
    SCOPED_TRACE(path);
    Outcome huge = postAndWait(client, "{}", server.url(path));
    EXPECT_FALSE(huge.data);
    EXPECT_FALSE(huge.response);
    ASSERT_TRUE(huge.error);
    EXPECT_EQ(huge.error->domain, "CURL");
    EXPECT_EQ(huge.error->code, CURLE_FILESIZE_EXCEEDED);
  }

  // The client is still fine afterwards.
  Outcome after = postAndWait(client, "[2]", server.url("/echo"));
  EXPECT_FALSE(after.error);
  EXPECT_EQ(after.data, "[2]");
}

TEST(HTTPClient, aStalledServerIsBoundedByTheTimeoutReadAtEachPost) {
  LocalServer server;
  std::atomic<double> timeout{0.3};
  HTTPClient client([&] { return timeout.load(); });

  const auto started = std::chrono::steady_clock::now();
  Outcome stalled = postAndWait(client, "{}", server.url("/stall"));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
  EXPECT_FALSE(stalled.data);
  EXPECT_FALSE(stalled.response);  // no status line ever arrived
  ASSERT_TRUE(stalled.error);
  EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT);

  // Nonsense timeouts fall back to the default instead of meaning "forever" or "at once".
  for (double value : {10.0, 0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
    timeout = value;
    Outcome ok = postAndWait(client, "[3]", server.url("/echo"));
    EXPECT_FALSE(ok.error) << value;
    EXPECT_EQ(ok.data, "[3]") << value;
  }
}

TEST(HTTPClient, destructionCompletesUnfinishedTransfersWithAnError) {
  LocalServer server;
  Outcomes outcomes;
  {
    HTTPClient client([] { return 60.0; });
    // Like a requester that fires again on failure: the post made while the client shuts down
    // must still be answered, not lost or left waiting.
    auto retry = outcomes.completion();
    client.post("{}", server.url("/stall"),
                [&client, &server, retry](std::optional<std::string> data,
                                          std::optional<HTTPURLResponse> response,
                                          std::optional<HTTPError> error) {
                  client.post("{}", server.url("/echo"), retry);
                  retry(std::move(data), std::move(response), std::move(error));
                });
    ASSERT_TRUE(test::waitUntil([&] { return server.stalled() == 1; }));
  }
  // The destructor joined the transport thread, so no completion can still be on its way.
  const auto all = outcomes.waitFor(2, 0ms);
  ASSERT_EQ(all.size(), 2u);
  for (const auto& outcome : all) {
    EXPECT_FALSE(outcome.data);
    EXPECT_FALSE(outcome.response);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, "CURL");
  }

  // Destroyed from its own completion: the thread cannot join itself and must still wind down.
  std::atomic<bool> destroyed{false};
  auto* owned = new HTTPClient([] { return 10.0; });
  owned->post("{}", server.url("/echo"),
              [&, owned](std::optional<std::string>, std::optional<HTTPURLResponse>,
                         std::optional<HTTPError>) {
                delete owned;
                destroyed = true;
              });
  EXPECT_TRUE(test::waitUntil([&] { return destroyed.load(); }));
}

TEST(HTTPClient, reusesOneConnectionForSequentialPosts) {
  LocalServer server;
  HTTPClient client([] { return 10.0; });
  for (int i = 0; i < 5; ++i) {
    Outcome ok = postAndWait(client, std::to_string(i), server.url(i % 2 ? "/echo" : "/fail"));
    EXPECT_FALSE(ok.error) << i;
  }
  EXPECT_EQ(client.connectionsOpened(), 1);
}

TEST(HTTPClient, concurrentPostsFromSeveralThreadsEachCompleteExactlyOnce) {
  LocalServer server;
  constexpr int kThreads = 4;
  constexpr int kPostsPerThread = 25;
  constexpr int kPosts = kThreads * kPostsPerThread;
  std::mutex mutex;
  std::map<int, int> calls;       // guarded by mutex
  std::map<int, bool> echoedOwn;  // guarded by mutex
  {
    HTTPClient client([] { return 20.0; });
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&, t] {
        for (int i = 0; i < kPostsPerThread; ++i) {
          const int id = t * kPostsPerThread + i;
          const std::string body = "[" + std::to_string(id) + "]";
          client.post(body, server.url("/echo"),
                      [&, id, body](std::optional<std::string> data, std::optional<HTTPURLResponse>,
                                    std::optional<HTTPError>) {
                        std::scoped_lock lock(mutex);
                        ++calls[id];
                        echoedOwn[id] = data == body;
                      });
        }
      });
    }
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(test::waitUntil([&] {
      std::scoped_lock lock(mutex);
      return calls.size() == kPosts;
    }));
    EXPECT_LE(client.connectionsOpened(), 6);  // connections are shared, not one per post
  }
  // The client is gone and its thread joined: any second call would have happened by now.
  std::scoped_lock lock(mutex);
  ASSERT_EQ(calls.size(), static_cast<size_t>(kPosts));
  for (const auto& [id, count] : calls) {
    EXPECT_EQ(count, 1) << id;
    EXPECT_TRUE(echoedOwn[id]) << id;
  }
}

TEST(HTTPClient, aThrowingCompletionIsLoggedAndTheThreadCarriesOn) {
  test::CapturingLog log;
  LocalServer server;
  HTTPClient client([] { return 10.0; });
  std::atomic<bool> thrown{false};
  client.post(
      "{}", server.url("/echo"),
      [&](std::optional<std::string>, std::optional<HTTPURLResponse>, std::optional<HTTPError>) {
        thrown = true;
        throw std::runtime_error("completion failed");
      });
  ASSERT_TRUE(test::waitUntil([&] { return thrown.load(); }));
  Outcome next = postAndWait(client, "[4]", server.url("/echo"));
  EXPECT_EQ(next.data, "[4]");
  EXPECT_EQ(log.count("[Error] Unexpected exception on a library thread: completion failed"), 1u);
}

}  // namespace
}  // namespace vntr
