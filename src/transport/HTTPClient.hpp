#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "transport/HTTPClientProtocol.hpp"

namespace vntr {

/// The network transport: one long-lived curl multi handle driven by one library thread named
/// "VNTRTransport", so connections (and TLS sessions) are reused across posts.
///
/// `post` and `get` may be called on any thread and return at once. Completions run on the
/// transport thread, one at a time, exactly once per call; a completion that throws is logged
/// and the thread carries on. A slow completion delays every other transfer, so hand heavy work
/// to another queue. The exceptions run synchronously on the caller's thread before the call
/// returns: a URL string that does not parse (HTTPError{"URL Error", 9999, "URL could not be
/// formed from string"}), and a request to a client that has stopped or whose libcurl could not
/// start.
///
/// The thread starts with the first request and initialises libcurl and the TLS library itself
/// (a few milliseconds no caller waits for); requests made meanwhile wait in the queue. A fork
/// waits for that start-up like for any library task, and exit for it as for a transfer.
///
/// Certificates are always verified; only http and https are spoken; redirects are not followed
/// (a 3xx arrives like any other response, its body as the reply); no cookies are kept and
/// nothing is cached. A "Retry-After" header is passed on in the response. A response body
/// above `kMaxResponseBytes` is abandoned and reported as a failure with neither data nor
/// response, so a hostile server cannot exhaust memory.
///
/// Ownership: the submission queue and the stop flag are guarded by one mutex; the curl handles
/// and the transfers in flight are confined to the transport thread. The process-wide instance
/// is leaked on purpose; test instances may be destroyed, even from one of their own completions
/// (the thread then finishes its shutdown after that completion returns). When the process exits,
/// an exit handler stops every transport thread (transfers in flight complete with the shut-down
/// error) before the TLS library's own exit handler frees what a handshake would still use.
class HTTPClient final : public HTTPClientProtocol {
 public:
  static constexpr size_t kMaxResponseBytes = 4 * 1024 * 1024;

  /// `requestTimeout` (seconds) is read at each request; the default reads
  /// VNTRPreferences::sharedPreferences().requestTimeout(). A value that is not a positive
  /// number falls back to VNTRPreferences::kDefaultRequestTimeout.
  explicit HTTPClient(std::function<double()> requestTimeout = {});
  /// For test instances only: stops and joins the transport thread; transfers not yet finished
  /// complete with an error (on the transport thread) before it returns.
  ~HTTPClient() override;
  HTTPClient(const HTTPClient&) = delete;
  HTTPClient& operator=(const HTTPClient&) = delete;

  /// Posts `body` as given with "Content-Type: application/json" and the request timeout.
  void post(std::string body, const std::string& url, HTTPCompletion completion) override;
  /// Plain GET with no headers of its own, no cookies and no cache, for the consent check; same
  /// completion contract as `post`.
  void get(const std::string& url, HTTPCompletion completion);
  /// Stops the transport thread for good (the library is shutting down): transfers in flight
  /// complete with the shut-down error, later requests fail at once. Waits for the thread to
  /// leave libcurl until `deadline`; returns at once when called from one of its completions.
  void stop(std::chrono::steady_clock::time_point deadline);
  /// Connections opened so far (for benchmarks and tests: proves reuse).
  long connectionsOpened() const;

 private:
  struct State;  // shared with the transport thread, which keeps it until it has shut down

  void submit(bool isPost, std::string body, const std::string& url, HTTPCompletion completion);
  void startThread();

  std::function<double()> requestTimeout_;  // immutable after construction
  std::shared_ptr<State> state_;
  // Decides once whether the thread is made: at the first request, or never once stopped.
  std::once_flag threadStarted_;
  std::thread thread_;  // written only under threadStarted_
};

}  // namespace vntr
