#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "SandboxServer.hpp"
#include "fault/FaultSupport.hpp"
#include "support/LiveRuntime.hpp"
#include "support/TestSupport.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

constexpr int64_t kHugeBody = 100LL * 1024 * 1024;
constexpr double kRequestTimeout = 1.0;

/// Writes all of `data` unless the peer goes away or the server stops; false then.
bool sendAll(int fd, std::string_view data, const std::atomic<bool>& stopping) {
  while (!data.empty()) {
    if (stopping.load()) return false;
    pollfd p{fd, POLLOUT, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

/// Waits up to `wait` for the peer to close; true when it did.
bool peerClosedWithin(int fd, std::chrono::milliseconds wait) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0) return false;
  char buffer[4096];
  return ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) <= 0;
}

/// A TCP server on 127.0.0.1 that reads each HTTP request whole and then hands the connection
/// to a behaviour, which may answer with anything or nothing. One thread per connection.
class RawServer {
 public:
  using Behaviour =
      std::function<void(int fd, const std::string& body, const std::atomic<bool>& stopping)>;

  explicit RawServer(Behaviour behaviour) : behaviour_(std::move(behaviour)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }

  ~RawServer() {
    stopping_.store(true);
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> workers;
    {
      std::scoped_lock lock(mutex_);
      workers.swap(workers_);
    }
    for (auto& worker : workers) worker.join();
    if (listener_ >= 0) ::close(listener_);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/tags"; }
  int64_t connections() const { return connections_.load(); }

 private:
  void acceptLoop() {
    while (!stopping_.load()) {
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      connections_.fetch_add(1);
      std::scoped_lock lock(mutex_);
      if (workers_.size() >= 64) {  // a bound on threads, not a limit the tests reach
        ::close(fd);
        continue;
      }
      workers_.emplace_back([this, fd] {
        serve(fd);
        ::close(fd);
      });
    }
  }

  void serve(int fd) {
    std::string request;
    size_t bodyStart = std::string::npos;
    size_t contentLength = 0;
    char buffer[65536];
    while (!stopping_.load() && request.size() < 64u * 1024 * 1024) {
      if (bodyStart != std::string::npos && request.size() >= bodyStart + contentLength) break;
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      request.append(buffer, static_cast<size_t>(n));
      if (bodyStart == std::string::npos) {
        const size_t end = request.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        bodyStart = end + 4;
        std::string head = request.substr(0, end);
        for (auto& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (const size_t at = head.find("content-length:"); at != std::string::npos) {
          contentLength = std::stoul(head.substr(at + 15));
        }
      }
    }
    if (bodyStart == std::string::npos || stopping_.load()) return;
    behaviour_(fd, request.substr(bodyStart, contentLength), stopping_);
  }

  Behaviour behaviour_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int64_t> connections_{0};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<std::thread> workers_;  // guarded by mutex_
};

/// A canned answer: status 200, the given type and body, then the connection closes.
RawServer::Behaviour answerWith(std::string contentType, std::string body) {
  return [contentType = std::move(contentType), body = std::move(body)](
             int fd, const std::string&, const std::atomic<bool>& stopping) {
    sendAll(fd,
            "HTTP/1.1 200 OK\r\nContent-Type: " + contentType +
                "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\n\r\n" + body,
            stopping);
  };
}

/// Streams a 100 MiB answer (announced, or chunked without a length) as fast as the client
/// takes it, and records how much of it the client took before it hung up.
RawServer::Behaviour hugeAnswer(bool announced, std::atomic<int64_t>& mostSent) {
  return [announced, &mostSent](int fd, const std::string&, const std::atomic<bool>& stopping) {
    std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
    head += announced ? "Content-Length: " + std::to_string(kHugeBody) + "\r\n\r\n"
                      : std::string("Transfer-Encoding: chunked\r\n\r\n");
    if (!sendAll(fd, head, stopping)) return;
    const std::string piece(64 * 1024, ' ');
    char size[32];
    std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
    const std::string chunk = announced ? piece : size + piece + "\r\n";
    int64_t sent = 0;
    while (sent < kHugeBody && sendAll(fd, chunk, stopping)) {
      sent += static_cast<int64_t>(piece.size());
      int64_t most = mostSent.load();
      while (sent > most && !mostSent.compare_exchange_weak(most, sent)) {
      }
    }
  };
}

/// Peak resident memory of this process in bytes.
int64_t peakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  }
  return 0;
}

/// The library on real threads, pointed at one hostile server after another; a well-behaved
/// sandbox to recover with.
class HostileServers : public testing::Test {
 protected:
  void SetUp() override {
    auto& preferences = VNTRPreferences::sharedPreferences();
    previousTimeout_ = preferences.requestTimeout();
    preferences.setRequestTimeout(kRequestTimeout);
    ASSERT_TRUE(sandbox_.start());
    app_ = std::make_unique<LiveRuntime>(dir_.path());
  }
  void TearDown() override {
    app_.reset();
    VNTRPreferences::sharedPreferences().setRequestTimeout(previousTimeout_);
  }

  /// Stores `n` requests while batches go to `url` and waits (bounded) for the first batch to
  /// end, either way.
  void storeAndSendTo(const std::string& url, int n = 5) {
    VNTRPreferences::sharedPreferences().setServerURL(url);
    for (int i = 0; i < n; ++i) app_->fireEvents({"hostile"}, "server", {{"seq", i}});
    EXPECT_TRUE(waitUntil([&] { return counts_.finishedBatches() >= 1; }, 30s));
  }

  std::set<std::string> storedIds() {
    std::set<std::string> ids;
    for (const auto& request : storedRequests(app_->runtime())) ids.insert(request.value("id", ""));
    return ids;
  }

  /// The requester sends to a well-behaved server again: every stored request is delivered.
  void expectRecovery(const std::set<std::string>& ids) {
    VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL());
    app_->runtime().reachability().updateFlags(VNTRReachability::kReachable);
    EXPECT_TRUE(waitUntil([&] { return app_->storedCount() == 0; }, 30s))
        << app_->storedCount() << " requests never delivered after the server behaved again";
    for (const auto& id : ids) EXPECT_TRUE(sandbox_.received(id)) << id;
  }

  TempDir dir_;
  InstalledCounter counts_;
  QuietLog quiet_;
  sandbox::SandboxServer sandbox_;
  std::unique_ptr<LiveRuntime> app_;
  double previousTimeout_ = VNTRPreferences::kDefaultRequestTimeout;
};

// The transport stops reading an answer past its cap, whether the size is announced or not, so
// memory stays bounded; the requests stay stored.
TEST_F(HostileServers, aHundredMebibyteAnswerIsAbandoned) {
  for (const bool announced : {true, false}) {
    SCOPED_TRACE(announced ? "announced length" : "chunked");
    std::atomic<int64_t> mostSent{0};
    const int64_t peakBefore = peakResidentBytes();
    {
      RawServer server(hugeAnswer(announced, mostSent));
      const int64_t finishedBefore = counts_.finishedBatches();
      VNTRPreferences::sharedPreferences().setServerURL(server.url());
      app_->fireEvents({"hostile"}, "server", {{"huge", announced}});
      ASSERT_TRUE(waitUntil([&] { return counts_.finishedBatches() > finishedBefore; }, 30s));
      VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL());
    }
    // What the client took is its cap plus what the sockets buffer, far from 100 MiB.
    EXPECT_LT(mostSent.load(), 32LL * 1024 * 1024);
    std::cout << "[ figures  ] " << (announced ? "announced" : "chunked") << ": the client took "
              << mostSent.load() / 1024 << " KiB of 100 MiB; peak memory grew by "
              << (peakResidentBytes() - peakBefore) / 1024 << " KiB\n";
    if (!kSanitized) {
      EXPECT_LT(peakResidentBytes() - peakBefore, 48LL * 1024 * 1024);
    }
    EXPECT_EQ(counts_[VNTRStatistic::responseReceived], 0);
  }
  EXPECT_EQ(app_->storedCount(), 2);
  expectRecovery({});
}

// A body trickled at one byte a second ends with the request timeout, not when the server
// would have finished.
TEST_F(HostileServers, aTrickledAnswerEndsWithTheRequestTimeout) {
  RawServer server([](int fd, const std::string&, const std::atomic<bool>& stopping) {
    if (!sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n", stopping)) return;
    for (int i = 0; i < 1000 && !stopping.load(); ++i) {
      if (!sendAll(fd, "[", stopping)) return;
      if (peerClosedWithin(fd, 1000ms)) return;  // one byte a second, until the client hangs up
    }
  });
  const auto started = std::chrono::steady_clock::now();
  storeAndSendTo(server.url());
  EXPECT_LT(std::chrono::steady_clock::now() - started,
            std::chrono::duration<double>(kRequestTimeout) + 5s);
  // What trickled in before the timeout is not an answer to anything.
  EXPECT_EQ(counts_[VNTRStatistic::eventResultProcessed], 0);
  const auto ids = storedIds();
  EXPECT_EQ(ids.size(), 5u);
  expectRecovery(ids);
}

// A server that takes the request and never answers: the same timeout ends the batch.
TEST_F(HostileServers, aServerThatNeverAnswersIsLeftAtTheRequestTimeout) {
  RawServer server([](int fd, const std::string&, const std::atomic<bool>& stopping) {
    while (!stopping.load() && !peerClosedWithin(fd, 100ms)) {
    }
  });
  const auto started = std::chrono::steady_clock::now();
  storeAndSendTo(server.url());
  EXPECT_LT(std::chrono::steady_clock::now() - started,
            std::chrono::duration<double>(kRequestTimeout) + 5s);
  EXPECT_GE(counts_[VNTRStatistic::requestFailed], 1);
  const auto ids = storedIds();
  EXPECT_EQ(ids.size(), 5u);
  expectRecovery(ids);
}

// Bodies that are not an answer: cut-off JSON, JSON nested a hundred thousand deep (at the top
// and inside an entry), an HTML page with status 200. Each is received, found unusable, and
// nothing stored is touched.
TEST_F(HostileServers, unusableBodiesLeaveEveryRequestStored) {
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  std::string deepEntry = R"([{"id":"x","result":)";
  for (int i = 0; i < 100'000; ++i) deepEntry += R"({"a":)";
  deepEntry += "1" + std::string(100'000, '}') + "}]";
  const std::vector<std::pair<std::string, std::string>> bodies = {
      {"application/json", R"([{"id":"x","result":{"status":)"},
      {"application/json", deep},
      {"application/json", deepEntry},
      {"text/html",
       "<!DOCTYPE html><html><head><title>Welcome</title></head>"
       "<body><h1>It works!</h1></body></html>"},
  };
  for (size_t i = 0; i < bodies.size(); ++i) {
    SCOPED_TRACE("body " + std::to_string(i));
    RawServer server(answerWith(bodies[i].first, bodies[i].second));
    const int64_t before = counts_[VNTRStatistic::responseUnparsable];
    VNTRPreferences::sharedPreferences().setServerURL(server.url());
    app_->fireEvents({"hostile"}, "server", {{"body", i}});
    ASSERT_TRUE(
        waitUntil([&] { return counts_[VNTRStatistic::responseUnparsable] > before; }, 30s));
    VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL() + "/unused");
  }
  EXPECT_EQ(counts_[VNTRStatistic::eventResultProcessed], 0);
  const auto ids = storedIds();
  EXPECT_EQ(ids.size(), bodies.size());
  expectRecovery(ids);
}

// An answer about the wrong requests: an id twice, ids nobody sent, an id that is a number, an
// entry with neither result nor error, a result that is not an object. Only the one request
// properly answered leaves the store, once.
TEST_F(HostileServers, wrongDuplicateAndUnknownIdsTouchOnlyTheRequestAnswered) {
  // The first batch gets the bad answer; later ones (retries) get an empty one.
  std::mutex mutex;
  std::string answered;        // guarded by mutex
  std::set<std::string> sent;  // guarded by mutex
  RawServer server([&](int fd, const std::string& body, const std::atomic<bool>& stopping) {
    std::vector<std::string> ids;
    for (const auto& request : json::parse(body, nullptr, false)) {
      if (request.value("method", "") == "syncEvent") ids.push_back(request.value("id", ""));
    }
    json answer = json::array();
    {
      std::scoped_lock lock(mutex);
      if (answered.empty() && ids.size() == 5) {
        answered = ids[0];
        sent.insert(ids.begin(), ids.end());
        answer = json::array({
            {{"id", ids[0]}, {"result", {{"status", "ok"}}}},
            {{"id", ids[0]}, {"result", {{"status", "ok"}}}},
            {{"id", "00000000-0000-0000-0000-00000000000F"}, {"result", {{"status", "ok"}}}},
            {{"id", 42}, {"result", {{"status", "ok"}}}},
            {{"id", ids[1]}},
            {{"id", ids[2]}, {"result", "ok"}},
        });
      }
    }
    answerWith("application/json", answer.dump())(fd, body, stopping);
  });
  storeAndSendTo(server.url());
  ASSERT_TRUE(waitUntil([&] { return counts_[VNTRStatistic::eventResultProcessed] >= 1; }, 30s));
  VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL() + "/unused");
  EXPECT_EQ(counts_[VNTRStatistic::eventResultProcessed], 1);
  auto left = storedIds();
  std::scoped_lock lock(mutex);
  EXPECT_EQ(left.size(), 4u);
  EXPECT_EQ(left.count(answered), 0u);
  left.insert(answered);
  EXPECT_EQ(left, sent);
  left.erase(answered);
  expectRecovery(left);
}

// A TLS server whose certificate nobody trusts: the handshake is refused, no request (batch or
// consent check) gets through, and nothing stored is lost.
TEST_F(HostileServers, anUntrustedCertificateIsRefused) {
  const auto certificate = makeSelfSignedCertificate(dir_.path());
  if (!certificate) GTEST_SKIP() << "the openssl program could not make a certificate";
  UntrustedTLSServer server(*certificate);
  ASSERT_TRUE(server.running());
  storeAndSendTo(server.url());
  EXPECT_GE(counts_[VNTRStatistic::requestFailed], 1);
  EXPECT_EQ(counts_[VNTRStatistic::responseReceived], 0);
  const auto ids = storedIds();

  HTTPClient client;
  std::atomic<bool> done{false};
  std::optional<HTTPError> error;
  bool gotData = true;
  client.get(server.url("/gdpr/check/json/current"),
             [&](std::optional<std::string> data, std::optional<HTTPURLResponse>,
                 std::optional<HTTPError> e) {
               gotData = data.has_value();
               error = std::move(e);
               done.store(true);
             });
  ASSERT_TRUE(waitUntil([&] { return done.load(); }, 30s));
  EXPECT_FALSE(gotData);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->code, 60) << error->localizedDescription;  // CURLE_PEER_FAILED_VERIFICATION
  EXPECT_EQ(server.requests(), 0);
  EXPECT_EQ(ids.size(), 5u);
  expectRecovery(ids);
}

}  // namespace
}  // namespace vntr::test
