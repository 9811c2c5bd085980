#pragma once

// The transport thread behind HTTPClient: its state (shared by the client and the thread), the
// thread's work (HTTPTransportThread.cpp) and what keeps it safe at exit and fork
// (HTTPTransportExit.cpp).

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "transport/HTTPClient.hpp"
#include "transport/HTTPSupport.hpp"

namespace vntr {
namespace detail {

inline constexpr const char* kShutDownDescription = "The HTTP client was shut down";

/// A transport thread that must be out of libcurl before the TLS library's exit handler runs.
class StoppedAtExit {
 public:
  virtual ~StoppedAtExit() = default;
  /// Stops the thread and waits until it has finished, or until `deadline`.
  virtual void stopForExit(std::chrono::steady_clock::time_point deadline) noexcept = 0;
};

/// Once, at the first client: the exit and fork handlers of every transport
/// (HTTPTransportExit.cpp).
void registerExitHandlers();
/// Makes exit stop `transport`'s thread before the TLS library's exit handler runs.
void stopAtExit(std::weak_ptr<StoppedAtExit> transport);
void initializeCurlOnce();

HTTPError curlError(CURLcode code, const char* description);

struct Request {
  bool isPost = true;
  ParsedURL url;
  std::string body;
  long timeoutMs = 0;
  HTTPCompletion completion;
};

/// One transfer in flight; owned by the transport thread, pointed to by its easy handle.
struct Transfer {
  explicit Transfer(Request r) : request(std::move(r)) {}
  Request request;
  std::string data;
  bool tooLarge = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};
};

/// Runs a completion so that nothing it throws can reach the transport thread's loop.
void deliver(HTTPCompletion& completion, std::optional<std::string> data,
             std::optional<HTTPURLResponse> response, std::optional<HTTPError> error);

}  // namespace detail

struct HTTPClient::State final : detail::StoppedAtExit {
  State() = default;
  ~State() override {
    for (CURL* easy : idle) curl_easy_cleanup(easy);
    if (multi != nullptr) curl_multi_cleanup(multi);
    curl_slist_free_all(postHeaders);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  /// A request handed back, and why: the client is stopping, or never started.
  struct Refused {
    detail::Request request;
    CURLcode code;
  };

  /// Queues `request` and wakes the thread; hands it back when the client does not take work.
  std::optional<Refused> enqueue(detail::Request request) {
    CURLM* wake = nullptr;
    {
      std::scoped_lock lock(mutex);
      if (failed) return Refused{std::move(request), CURLE_FAILED_INIT};
      if (stopping) return Refused{std::move(request), CURLE_ABORTED_BY_CALLBACK};
      queue.push_back(std::move(request));
      // Until it has started, the thread reads the queue before it first waits.
      if (started) wake = multi;
    }
    if (wake != nullptr) curl_multi_wakeup(wake);
    return std::nullopt;
  }

  void requestStop() {
    CURLM* wake = nullptr;
    {
      std::scoped_lock lock(mutex);
      stopping = true;
      if (started) wake = multi;
    }
    if (wake != nullptr) curl_multi_wakeup(wake);
  }

  /// No thread was made: every request from now on fails at once, with the shut-down error
  /// once `stopped`, else as never started.
  void refuseAll(bool stopped) {
    std::scoped_lock lock(mutex);
    if (stopped) {
      stopping = true;
    } else {
      failed = true;
    }
  }

  void stopForExit(std::chrono::steady_clock::time_point deadline) noexcept override {
    // Exit called from one of our own completions: the thread cannot wait for itself.
    if (runner.load() == std::this_thread::get_id()) return;
    {
      std::scoped_lock lock(mutex);
      stoppedForExit = true;
    }
    requestStop();
    std::unique_lock lock(mutex);
    finishedChanged.wait_until(lock, deadline, [this] { return finished; });
  }

  bool startUp();
  void run();
  void start(detail::Request request);
  void configure(CURL* easy, detail::Transfer& transfer) const;
  void collectFinished();
  void finish(CURL* easy, CURLcode result);
  void recycle(CURL* easy);
  void shutDown(std::vector<detail::Request> queued);

  // Made by the thread as it starts and destroyed after it ends. Other threads only call
  // curl_multi_wakeup (libcurl allows that), once `started` says the handle is there.
  CURLM* multi = nullptr;
  curl_slist* postHeaders = nullptr;  // immutable once started
  std::atomic<long> connectionsOpened{0};

  std::mutex mutex;
  std::vector<detail::Request> queue;  // guarded by mutex
  bool started = false;                // guarded by mutex: `multi` is ready for wake-ups
  bool failed = false;          // guarded by mutex: libcurl could not start; nothing is taken
  bool stopping = false;        // guarded by mutex
  bool finished = false;        // guarded by mutex: the thread has shut down and left libcurl
  bool stoppedForExit = false;  // guarded by mutex: stopped by the exit handler, not a destructor
  std::condition_variable finishedChanged;
  std::atomic<std::thread::id> runner{};

  // Confined to the transport thread.
  std::unordered_map<CURL*, std::unique_ptr<detail::Transfer>> active;
  std::vector<CURL*> idle;
};

}  // namespace vntr
