#include "transport/HTTPClient.hpp"

#include <curl/curl.h>
#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/VNTRDebug.hpp"
#include "transport/HTTPSupport.hpp"

namespace vntr {
namespace {

constexpr long kURLErrorCode = 9999;
constexpr const char* kURLErrorDomain = "URL Error";
constexpr const char* kURLErrorDescription = "URL could not be formed from string";
constexpr const char* kCurlErrorDomain = "CURL";
constexpr const char* kShutDownDescription = "The HTTP client was shut down";

// Only an upper bound: curl shortens the wait for its own timers, and new work wakes the thread,
// so an idle client costs nothing but this occasional turn.
constexpr int kPollMilliseconds = 30'000;
constexpr size_t kMaxIdleHandles = 8;
constexpr long kMaxHostConnections = 6;
// How long exit waits for a transport thread to leave libcurl; only a completion that blocks
// (a host delegate waiting on something) could make it wait that long.
constexpr auto kExitStopTimeout = std::chrono::seconds(2);

/// A transport thread that must be out of libcurl before the TLS library's exit handler runs.
class StoppedAtExit {
 public:
  virtual ~StoppedAtExit() = default;
  /// Stops the thread and waits until it has finished, or until `deadline`.
  virtual void stopForExit(std::chrono::steady_clock::time_point deadline) noexcept = 0;
};

/// The transports whose threads may run at exit. Never destroyed: exit reads it.
struct TransportsAtExit {
  std::mutex mutex;
  std::vector<std::weak_ptr<StoppedAtExit>> live;  // guarded by mutex
};

TransportsAtExit& transportsAtExit() {
  static auto* const transports = new TransportsAtExit;  // never destroyed
  return *transports;
}

void stopTransportsAtExit() noexcept {
  std::vector<std::shared_ptr<StoppedAtExit>> live;
  try {
    auto& transports = transportsAtExit();
    std::scoped_lock lock(transports.mutex);
    for (const auto& weak : transports.live) {
      if (auto transport = weak.lock()) live.push_back(std::move(transport));
    }
  } catch (...) {
    return;  // out of memory while exiting: nothing better to do than to let exit go on
  }
  const auto deadline = std::chrono::steady_clock::now() + kExitStopTimeout;
  for (const auto& transport : live) transport->stopForExit(deadline);
}

void stopAtExit(std::weak_ptr<StoppedAtExit> transport) {
  auto& transports = transportsAtExit();
  std::scoped_lock lock(transports.mutex);
  std::erase_if(transports.live, [](const auto& weak) { return weak.expired(); });
  transports.live.push_back(std::move(transport));
}

// Trivially destructible, so it is safe at namespace scope in a library that is never torn down.
std::once_flag curlGlobalInitFlag;

// OpenSSL frees its tables from an exit handler of its own, and a transport thread still inside a
// handshake when the process exits reads them (a use after free, seen by ThreadSanitizer). Asked
// before anything initialises it, OpenSSL registers no such handler; the kernel takes the memory
// back at exit anyway. Looked up, not linked: libcurl may use another TLS library.
void keepTLSTablesAtExit() {
  constexpr uint64_t kOpenSSLInitNoAtExit = 0x00080000;  // OPENSSL_INIT_NO_ATEXIT
  using InitCrypto = int (*)(uint64_t, const void*);
  if (void* symbol = ::dlsym(RTLD_DEFAULT, "OPENSSL_init_crypto")) {
    reinterpret_cast<InitCrypto>(symbol)(kOpenSSLInitNoAtExit, nullptr);
  }
}

void initializeCurlOnce() {
  // Never paired with curl_global_cleanup: the host may use libcurl too, and our thread may still
  // run while the process exits.
  std::call_once(curlGlobalInitFlag, [] {
    keepTLSTablesAtExit();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // A host that initialised the TLS library before us has registered the exit handler that
    // frees its tables; a transport thread inside a handshake or a random-number call at that
    // moment crashes the exiting process. Exit handlers run in reverse order of registration,
    // so this one runs before it and stops our threads first.
    std::atexit(stopTransportsAtExit);
  });
}

HTTPError curlError(CURLcode code, const char* description) {
  return HTTPError{kCurlErrorDomain, static_cast<long>(code), description};
}

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
             std::optional<HTTPURLResponse> response, std::optional<HTTPError> error) {
  if (!completion) return;
  try {
    completion(std::move(data), std::move(response), std::move(error));
  } catch (const std::exception& e) {
    Debug(VantrelLogLevel::error,
          std::string("Unexpected exception on a library thread: ") + e.what());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    Debug(VantrelLogLevel::error, "Unexpected exception on a library thread");
  }
}

size_t writeBody(char* bytes, size_t size, size_t count, void* userdata) noexcept {
  auto* transfer = static_cast<Transfer*>(userdata);
  const size_t n = size * count;
  // Returning fewer bytes than offered makes curl abort the transfer.
  if (n > HTTPClient::kMaxResponseBytes - transfer->data.size()) {
    transfer->tooLarge = true;
    return 0;
  }
  try {
    transfer->data.append(bytes, n);
  } catch (...) {
    return 0;
  }
  return n;
}

}  // namespace

struct HTTPClient::State final : StoppedAtExit {
  State() {
    initializeCurlOnce();
    multi = curl_multi_init();
    // Like a browser, a few connections per host at most; further transfers wait for one.
    if (multi != nullptr)
      curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
    postHeaders = curl_slist_append(nullptr, "Content-Type: application/json");
    // Without this curl may wait for a "100 Continue" before sending a larger body.
    if (postHeaders != nullptr) {
      curl_slist* withExpect = curl_slist_append(postHeaders, "Expect:");
      if (withExpect != nullptr) postHeaders = withExpect;
    }
  }
  ~State() override {
    for (CURL* easy : idle) curl_easy_cleanup(easy);
    if (multi != nullptr) curl_multi_cleanup(multi);
    curl_slist_free_all(postHeaders);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  bool usable() const { return multi != nullptr && postHeaders != nullptr; }

  /// Queues `request` and wakes the thread; hands it back when the client no longer accepts work.
  std::optional<Request> enqueue(Request request) {
    {
      std::scoped_lock lock(mutex);
      if (stopping) return request;
      queue.push_back(std::move(request));
    }
    curl_multi_wakeup(multi);
    return std::nullopt;
  }

  void requestStop() {
    {
      std::scoped_lock lock(mutex);
      stopping = true;
    }
    curl_multi_wakeup(multi);
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

  void run();
  void start(Request request);
  void configure(CURL* easy, Transfer& transfer) const;
  void collectFinished();
  void finish(CURL* easy, CURLcode result);
  void recycle(CURL* easy);
  void shutDown(std::vector<Request> queued);

  // Created before the thread starts and destroyed after it ends. Only curl_multi_wakeup is
  // called from other threads (libcurl allows that); everything else on the transport thread.
  CURLM* multi = nullptr;
  curl_slist* postHeaders = nullptr;  // immutable after construction
  std::atomic<long> connectionsOpened{0};

  std::mutex mutex;
  std::vector<Request> queue;   // guarded by mutex
  bool stopping = false;        // guarded by mutex
  bool finished = false;        // guarded by mutex: the thread has shut down and left libcurl
  bool stoppedForExit = false;  // guarded by mutex: stopped by the exit handler, not a destructor
  std::condition_variable finishedChanged;
  std::atomic<std::thread::id> runner{};

  // Confined to the transport thread.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
  std::vector<CURL*> idle;
};

void HTTPClient::State::run() {
  pthread_setname_np(pthread_self(), "VNTRTransport");
  runner.store(std::this_thread::get_id());
  // A host may end this thread inside a completion (a forced unwind): stopping for exit must not
  // then wait for a thread that is gone.
  struct Ended {
    State& state;
    ~Ended() {
      {
        std::scoped_lock lock(state.mutex);
        state.finished = true;
      }
      state.finishedChanged.notify_all();
    }
  } ended{*this};
  for (;;) {
    std::vector<Request> incoming;
    bool stop = false;
    {
      std::scoped_lock lock(mutex);
      incoming.swap(queue);
      stop = stopping;
    }
    if (stop) {
      shutDown(std::move(incoming));
      bool park = false;
      {
        std::scoped_lock lock(mutex);
        finished = true;
        park = stoppedForExit;
      }
      finishedChanged.notify_all();
      if (park) {
        // Stopped by the exit handler: out of libcurl for good, but the thread of a client that
        // is never destroyed is never joined, so it waits for the process to end like the
        // library's other threads instead of finishing unjoined.
        std::unique_lock lock(mutex);
        finishedChanged.wait(lock, [] { return false; });
      }
      return;
    }
    try {
      for (Request& request : incoming) start(std::move(request));
      int running = 0;
      curl_multi_perform(multi, &running);
      collectFinished();
      // Returns early on socket activity, on curl's own timers, and on curl_multi_wakeup from
      // enqueue/requestStop; a wakeup sent before this call is not lost.
      if (curl_multi_poll(multi, nullptr, 0, kPollMilliseconds, nullptr) != CURLM_OK) {
        // Only on resource exhaustion; back off instead of spinning.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    } catch (const std::exception& e) {
      Debug(VantrelLogLevel::error,
            std::string("Unexpected exception on a library thread: ") + e.what());
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      Debug(VantrelLogLevel::error, "Unexpected exception on a library thread");
    }
  }
}

void HTTPClient::State::start(Request request) {
  CURL* easy = nullptr;
  if (!idle.empty()) {
    easy = idle.back();
    idle.pop_back();
  } else {
    easy = curl_easy_init();
  }
  if (easy == nullptr) {
    deliver(request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_OUT_OF_MEMORY, curl_easy_strerror(CURLE_OUT_OF_MEMORY)));
    return;
  }
  auto transfer = std::make_unique<Transfer>(std::move(request));
  configure(easy, *transfer);
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    recycle(easy);
    deliver(transfer->request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT)));
    return;
  }
  active.emplace(easy, std::move(transfer));
}

void HTTPClient::State::configure(CURL* easy, Transfer& transfer) const {
  const Request& request = transfer.request;
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_URL, request.url.url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  // curl speaks many protocols; a server URL of file:// or gopher:// must not reach them.
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  // Redirects are not followed: a 3xx is the server's answer, and event data never goes to a
  // host the Location header names instead of the configured one.
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, request.timeoutMs);
  // Rejects an announced oversized body before any of it is read; writeBody catches the rest.
  curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE,
                   static_cast<curl_off_t>(HTTPClient::kMaxResponseBytes));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, writeBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  if (request.isPost) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, postHeaders);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  }
}

void HTTPClient::State::collectFinished() {
  int remaining = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &remaining)) {
    if (message->msg != CURLMSG_DONE) continue;
    // The message dies with the handle's removal; copy what is needed first.
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    finish(easy, result);
  }
}

void HTTPClient::State::finish(CURL* easy, CURLcode result) {
  auto found = active.find(easy);
  if (found == active.end()) return;
  std::unique_ptr<Transfer> transfer = std::move(found->second);
  active.erase(found);
  curl_multi_remove_handle(multi, easy);

  long connects = 0;
  if (curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK) {
    connectionsOpened.fetch_add(connects, std::memory_order_relaxed);
  }
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  std::optional<double> retryAfter;
  curl_header* header = nullptr;
  if (status > 0 &&
      curl_easy_header(easy, "Retry-After", 0, CURLH_HEADER, -1, &header) == CURLHE_OK) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    retryAfter = parseRetryAfter(header->value, std::chrono::duration<double>(now).count());
  }
  recycle(easy);

  if (transfer->tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
    // Abandoned on purpose: the partial body and its status are not a reply to act on.
    deliver(transfer->request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_FILESIZE_EXCEEDED, curl_easy_strerror(CURLE_FILESIZE_EXCEEDED)));
    return;
  }
  std::optional<std::string> data;
  if (!transfer->data.empty()) data = std::move(transfer->data);
  std::optional<HTTPURLResponse> response;
  if (status > 0) response = HTTPURLResponse{transfer->request.url.url, status, retryAfter};
  std::optional<HTTPError> error;
  if (result != CURLE_OK) {
    error = curlError(result, transfer->errorBuffer[0] != '\0' ? transfer->errorBuffer
                                                               : curl_easy_strerror(result));
  }
  deliver(transfer->request.completion, std::move(data), std::move(response), std::move(error));
}

void HTTPClient::State::recycle(CURL* easy) {
  // A reset handle keeps nothing of the last request; connections stay in the multi handle.
  if (idle.size() < kMaxIdleHandles) {
    curl_easy_reset(easy);
    idle.push_back(easy);
  } else {
    curl_easy_cleanup(easy);
  }
}

void HTTPClient::State::shutDown(std::vector<Request> queued) {
  std::vector<std::unique_ptr<Transfer>> unfinished;
  for (auto& [easy, transfer] : active) {
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
    unfinished.push_back(std::move(transfer));
  }
  active.clear();
  for (auto& transfer : unfinished) {
    deliver(transfer->request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_ABORTED_BY_CALLBACK, kShutDownDescription));
  }
  for (Request& request : queued) {
    deliver(request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_ABORTED_BY_CALLBACK, kShutDownDescription));
  }
}

HTTPClient::HTTPClient(std::function<double()> requestTimeout)
    : requestTimeout_(std::move(requestTimeout)), state_(std::make_shared<State>()) {
  if (!requestTimeout_) {
    requestTimeout_ = [] { return VNTRPreferences::sharedPreferences().requestTimeout(); };
  }
  if (state_->usable()) {
    try {
      thread_ = std::thread([state = state_] { state->run(); });
    } catch (const std::system_error&) {
      // Without a thread every request fails at once; see submit.
    }
  }
  if (thread_.joinable()) {
    stopAtExit(state_);
  } else {
    Debug(VantrelLogLevel::error, "Unable to initialise the HTTP transport");
  }
}

HTTPClient::~HTTPClient() {
  if (!thread_.joinable()) return;
  state_->requestStop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    // Destroyed from one of its own completions: the thread cannot join itself. It owns a share
    // of the state and finishes the shutdown on its own right after this completion returns.
    thread_.detach();
  } else {
    thread_.join();
  }
}

void HTTPClient::post(std::string body, const std::string& url, HTTPCompletion completion) {
  submit(true, std::move(body), url, std::move(completion));
}

void HTTPClient::get(const std::string& url, HTTPCompletion completion) {
  submit(false, std::string(), url, std::move(completion));
}

void HTTPClient::stop(std::chrono::steady_clock::time_point deadline) {
  if (thread_.joinable()) state_->stopForExit(deadline);
}

long HTTPClient::connectionsOpened() const {
  return state_->connectionsOpened.load(std::memory_order_relaxed);
}

void HTTPClient::submit(bool isPost, std::string body, const std::string& url,
                        HTTPCompletion completion) {
  std::optional<ParsedURL> parsed = parseURL(url);
  if (!parsed) {
    if (completion) {
      completion(std::nullopt, std::nullopt,
                 HTTPError{kURLErrorDomain, kURLErrorCode, kURLErrorDescription});
    }
    return;
  }
  if (!thread_.joinable()) {
    if (completion) {
      completion(std::nullopt, std::nullopt,
                 curlError(CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT)));
    }
    return;
  }
  Request request{isPost, std::move(*parsed), std::move(body),
                  timeoutMilliseconds(requestTimeout_()), std::move(completion)};
  if (std::optional<Request> refused = state_->enqueue(std::move(request))) {
    // Only while shutting down, e.g. a completion that posts again during destruction.
    deliver(refused->completion, std::nullopt, std::nullopt,
            curlError(CURLE_ABORTED_BY_CALLBACK, kShutDownDescription));
  }
}

}  // namespace vntr
