// The library on real threads against servers that misbehave on purpose: whatever they send, or
// do not, memory and time stay bounded and every stored request survives until a well-behaved
// server takes it.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>

#include "SandboxServer.hpp"
#include "support/Harness.hpp"
#include "support/Process.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Stat = VNTRStatistic;

/// Writes all of `data` unless the peer goes away or the server stops; false then.
bool sendAll(int fd, std::string_view data, const std::atomic<bool>& stopping) {
  while (!data.empty() && !stopping.load()) {
    pollfd p{fd, POLLOUT, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return data.empty();
}

/// True when the peer closed within `wait`.
bool peerClosedWithin(int fd, std::chrono::milliseconds wait) {
  pollfd p{fd, POLLIN, 0};
  char buffer[4096];
  return ::poll(&p, 1, static_cast<int>(wait.count())) > 0 &&
         ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) <= 0;
}

/// A TCP server on 127.0.0.1 that reads each HTTP request whole and hands the connection to a
/// behaviour, which may answer with anything or nothing. One thread per connection.
class RawServer {
 public:
  using Behaviour = std::function<void(int fd, const std::string& body, const std::atomic<bool>&)>;

  explicit RawServer(Behaviour behaviour) : behaviour_(std::move(behaviour)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(listener_, 16) == 0 &&
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port_ = ntohs(address.sin_port);
      acceptor_ = std::thread([this] { acceptLoop(); });
    }
  }
  ~RawServer() {
    stopping_.store(true);
    if (acceptor_.joinable()) acceptor_.join();
    for (auto& worker : workers_) worker.join();  // the acceptor, their only writer, is gone
    ::close(listener_);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/tags"; }
  /// Connections whose behaviour has run to its end (answered, or the client hung up).
  int served() const { return served_.load(); }

 private:
  void acceptLoop() {
    while (!stopping_.load()) {
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      if (workers_.size() >= 64) {  // a bound on threads, not a limit the tests reach
        ::close(fd);
        continue;
      }
      workers_.emplace_back([this, fd] {
        if (const auto body = readRequest(fd)) behaviour_(fd, *body, stopping_);
        ::close(fd);
        served_.fetch_add(1);
      });
    }
  }
  std::optional<std::string> readRequest(int fd) {
    std::string request;
    size_t bodyStart = std::string::npos, contentLength = 0;
    char buffer[65536];
    while (!stopping_.load() && request.size() < 64u * 1024 * 1024) {
      if (bodyStart != std::string::npos && request.size() >= bodyStart + contentLength) {
        return request.substr(bodyStart, contentLength);
      }
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return std::nullopt;
      request.append(buffer, static_cast<size_t>(n));
      if (const size_t end = request.find("\r\n\r\n");
          bodyStart == std::string::npos && end != std::string::npos) {
        bodyStart = end + 4;
        std::string head = request.substr(0, end);
        for (auto& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (const size_t at = head.find("content-length:"); at != std::string::npos) {
          contentLength = std::stoul(head.substr(at + 15));
        }
      }
    }
    return std::nullopt;
  }

  Behaviour behaviour_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> served_{0};
  std::thread acceptor_;
  std::vector<std::thread> workers_;  // only the acceptor touches it until it is joined
};

RawServer::Behaviour answerWith(std::string type, std::string body) {
  return [type, body](int fd, const std::string&, const std::atomic<bool>& stopping) {
    sendAll(fd,
            "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nConnection: close\r\n" +
                "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
            stopping);
  };
}

/// Streams a 100 MiB answer (announced, or chunked without a length) as fast as the client
/// takes it, and records how much it took before it hung up.
RawServer::Behaviour hugeAnswer(bool announced, std::atomic<int64_t>& sent) {
  return [announced, &sent](int fd, const std::string&, const std::atomic<bool>& stopping) {
    const std::string piece(64 * 1024, ' ');
    const std::string chunk = announced ? piece : "10000\r\n" + piece + "\r\n";
    std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
    head += announced ? "Content-Length: 104857600\r\n\r\n" : "Transfer-Encoding: chunked\r\n\r\n";
    if (!sendAll(fd, head, stopping)) return;
    while (sent.load() < 100 * 1024 * 1024 && sendAll(fd, chunk, stopping)) sent += 64 * 1024;
  };
}

int64_t peakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stoll(line.substr(6)) * 1024;
  }
  return 0;
}

class HostileServers : public testing::Test {
 protected:
  void SetUp() override {
    VNTRPreferences::sharedPreferences().setRequestTimeout(1.0);
    ASSERT_TRUE(sandbox_.start());
    app_ = std::make_unique<LiveRuntime>(dir_.path());
  }
  void TearDown() override {
    app_.reset();
    VNTRPreferences::sharedPreferences().setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
  }
  /// Stores one request while batches go to `url` and waits until a batch has ended, after
  /// `served` (when given) holds.
  void storeAndSendTo(const std::string& url, const json& data = {{"k", 1}},
                      const std::function<bool()>& served = {}) {
    const int64_t before = counts_.finishedBatches();
    VNTRPreferences::sharedPreferences().setServerURL(url);
    app_->fireEvents({"hostile"}, "server", data);
    EXPECT_TRUE(waitUntil(
        [&] { return (!served || served()) && counts_.finishedBatches() > before; }, 30s));
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
  InstalledCounter counts_;
  QuietLog quiet_;
  sandbox::SandboxServer sandbox_;
  std::unique_ptr<LiveRuntime> app_;
};

// A 100 MiB answer is abandoned at the transport's cap (memory stays bounded); a trickled answer
// and a server that never answers end at the request timeout; bodies that are cut off, nested a
// hundred thousand deep or an HTML page are found unusable. No stored request is touched.
TEST_F(HostileServers, noAnswerOfAnyShapeTouchesAStoredRequest) {
  std::atomic<int64_t> announced{0}, chunked{0};
  std::string deepEntry = R"([{"id":"x","result":)";
  for (int i = 0; i < 100'000; ++i) deepEntry += R"({"a":)";
  deepEntry += "1" + std::string(100'000, '}') + "}]";
  const std::pair<const char*, RawServer::Behaviour> servers[] = {
      {"huge announced", hugeAnswer(true, announced)},
      {"huge chunked", hugeAnswer(false, chunked)},
      {"trickle",
       [](int fd, const std::string&, const std::atomic<bool>& stopping) {
         if (!sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n", stopping)) return;
         for (int i = 0; i < 1000 && sendAll(fd, "[", stopping) && !peerClosedWithin(fd, 1s);) ++i;
       }},
      {"silent",
       [](int fd, const std::string&, const std::atomic<bool>& stopping) {
         while (!stopping.load() && !peerClosedWithin(fd, 100ms)) {
         }
       }},
      {"cut off", answerWith("application/json", R"([{"id":"x","result":{"status":)")},
      {"deep",
       answerWith("application/json", std::string(100'000, '[') + std::string(100'000, ']'))},
      {"deep entry", answerWith("application/json", deepEntry)},
      {"html",
       answerWith("text/html", "<!DOCTYPE html><html><body><h1>It works!</h1></body></html>")},
  };
  const int64_t peakBefore = peakResidentBytes();
  int n = 0;
  for (const auto& [name, behaviour] : servers) {
    SCOPED_TRACE(name);
    const auto started = std::chrono::steady_clock::now();
    RawServer server(behaviour);
    storeAndSendTo(server.url(), {{"n", n++}}, [&] { return server.served() > 0; });
    EXPECT_LT(std::chrono::steady_clock::now() - started, 6s);
  }
  EXPECT_LT(announced.load(), 32LL * 1024 * 1024);  // the cap plus what the sockets buffer
  EXPECT_LT(chunked.load(), 32LL * 1024 * 1024);
  if (!kSanitized) {
    EXPECT_LT(peakResidentBytes() - peakBefore, 48LL * 1024 * 1024);
  }
  EXPECT_GE(counts_[Stat::responseUnparsable], 4);  // the four bodies, at least
  EXPECT_EQ(counts_[Stat::eventResultProcessed], 0);
  EXPECT_EQ(storedIds().size(), static_cast<size_t>(n));
  expectRecovery();
}

// An answer about the wrong requests: an id twice, ids nobody sent, an id that is a number, an
// entry with neither result nor error, a result that is not an object. Only the one request
// properly answered leaves the store, once.
TEST_F(HostileServers, wrongDuplicateAndUnknownIdsTouchOnlyTheRequestAnswered) {
  std::mutex mutex;
  std::string answered;  // guarded by mutex
  RawServer server([&](int fd, const std::string& body, const std::atomic<bool>& stopping) {
    std::vector<std::string> ids;
    for (const auto& request : json::parse(body, nullptr, false)) {
      if (request.value("method", "") == "syncEvent") ids.push_back(request.value("id", ""));
    }
    json answer = json::array();
    std::scoped_lock lock(mutex);
    if (answered.empty() && ids.size() == 3) {  // the first batch; retries get an empty answer
      answered = ids[0];
      const json ok = {{"status", "ok"}};
      answer = {{{"id", ids[0]}, {"result", ok}},
                {{"id", ids[0]}, {"result", ok}},
                {{"id", "00000000-0000-0000-0000-00000000000F"}, {"result", ok}},
                {{"id", 42}, {"result", ok}},
                {{"id", ids[1]}},
                {{"id", ids[2]}, {"result", "ok"}}};
    }
    answerWith("application/json", answer.dump())(fd, body, stopping);
  });
  VNTRPreferences::sharedPreferences().setServerURL(server.url());
  for (int i = 0; i < 3; ++i) app_->fireEvents({"hostile"}, "server", {{"seq", i}});
  ASSERT_TRUE(waitUntil([&] { return counts_[Stat::eventResultProcessed] >= 1; }, 30s));
  VNTRPreferences::sharedPreferences().setServerURL(sandbox_.tagsURL() + "/unused");
  EXPECT_EQ(counts_[Stat::eventResultProcessed], 1);
  const auto left = storedIds();
  EXPECT_EQ(left.size(), 2u);
  std::scoped_lock lock(mutex);
  EXPECT_EQ(left.count(answered), 0u);
  expectRecovery();
}

// No setting turns certificate checks off: whichever way the URL names an untrusted TLS server,
// through the consent check's GET too, and whatever a host's environment says about certificate
// bundles, the handshake is refused and no request gets through.
TEST_F(HostileServers, anUntrustedCertificateIsRefusedWhateverTheURLOrEnvironment) {
  const auto certificate = makeSelfSignedCertificate(dir_.path());
  if (!certificate) GTEST_SKIP() << "the openssl program could not make a certificate";
  UntrustedTLSServer server(*certificate);
  ASSERT_TRUE(server.running());
  const std::string port = std::to_string(server.port());
  for (const std::string& url :
       {"https://127.0.0.1:" + port + "/tags", "HTTPS://127.0.0.1:" + port + "/tags",
        "https://localhost:" + port + "/tags", "https://127.0.0.1:" + port + "//tags?x=1"}) {
    storeAndSendTo(url);
  }
  EXPECT_EQ(counts_[Stat::responseReceived], 0);
  HTTPClient client;
  std::atomic<long> code{0};
  client.get(server.url("/gdpr/check/json/current"),
             [&](auto, auto, std::optional<HTTPError> e) { code = e ? e->code : -1; });
  ASSERT_TRUE(waitUntil([&] { return code.load() != 0; }, 30s));
  EXPECT_EQ(code.load(), 60);  // CURLE_PEER_FAILED_VERIFICATION

  const HostLayout host(dir_ / "host");
  writeSiteID(host.bundle);
  const std::string cert = certificate->certificate.string();
  const std::string certDir = certificate->certificate.parent_path().string();
  auto options = command({faultChildProgram(), "run", host.root.string(), server.url(), "0",
                          (host.root / "report").string(), "3", "2"},
                         host.root / "stderr");
  options.environment.insert(options.environment.end(),
                             {"CURL_CA_BUNDLE=" + cert, "SSL_CERT_FILE=" + cert,
                              "SSL_CERT_DIR=" + certDir, "CURL_HOME=" + certDir});
  ChildProcess child(options);
  const auto status = child.wait(60s);
  ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
      << readFile(host.root / "stderr");
  EXPECT_EQ(server.requests(), 0);
  EXPECT_EQ(readStore(host.store).rows, 3);
  expectRecovery();
}

}  // namespace
}  // namespace vntr::test
