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

#include "core/ForkGate.hpp"
#include "core/SerialExecutor.hpp"
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

// OpenSSL registers the exit handler that frees its tables early in its initialisation, while
// the rest of it (libcurl's and libssh2's share) goes on. Its base initialisation takes
// microseconds and registers that handler now. Nothing to do when libcurl uses another TLS
// library (none of them frees anything in an exit handler) or when OpenSSL is initialised
// already.
void registerTlsExitHandler() {
  // An option already set returns at once, before the handler is registered; OPENSSL_INIT_ASYNC
  // is one libcurl does not ask for, and all it makes is two thread-local keys.
  constexpr uint64_t kOpenSSLInitAsync = 0x100;
  for (const char* name : {"libcrypto.so.3", "libcrypto.so.1.1"}) {
    void* library = ::dlopen(name, RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) continue;
    using InitCrypto = int (*)(uint64_t options, const void* settings);
    if (auto* init = reinterpret_cast<InitCrypto>(::dlsym(library, "OPENSSL_init_crypto"))) {
      init(kOpenSSLInitAsync, nullptr);
    }
    ::dlclose(library);
    return;
  }
}

// Once, at the first client and so before any transport thread exists. A transport thread
// inside libcurl (starting it, or in a handshake or a random-number call) when the TLS library's
// exit handler frees its tables crashes the exiting process. Exit handlers run in reverse order
// of registration: stopTransportsAtExit, registered after the TLS library's, stops our threads
// before that handler runs, and waits for one that is still initialising libcurl.
void registerExitHandlers() {
  static std::once_flag registered;
  std::call_once(registered, [] {
    registerTlsExitHandler();
    std::atexit(stopTransportsAtExit);
    // A forked child never uses its parent's transports (their threads stayed behind): exit
    // there must not wait for them. Held across the fork, the mutex is whole in the child.
    pthread_atfork([] { transportsAtExit().mutex.lock(); },
                   [] { transportsAtExit().mutex.unlock(); },
                   [] {
                     auto& transports = transportsAtExit();
                     transports.live.clear();
                     transports.mutex.unlock();
                   });
  });
}

void stopAtExit(std::weak_ptr<StoppedAtExit> transport) {
  auto& transports = transportsAtExit();
  std::scoped_lock lock(transports.mutex);
  std::erase_if(transports.live, [](const auto& weak) { return weak.expired(); });
  transports.live.push_back(std::move(transport));
}

// Trivially destructible, so it is safe at namespace scope in a library that is never torn down.
std::once_flag curlGlobalInitFlag;

void initializeCurlOnce() {
  // Never paired with curl_global_cleanup: the host may use libcurl too, and our thread may still
  // run while the process exits.
  std::call_once(curlGlobalInitFlag, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
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
    Request request;
    CURLcode code;
  };

  /// Queues `request` and wakes the thread; hands it back when the client does not take work.
  std::optional<Refused> enqueue(Request request) {
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
  void start(Request request);
  void configure(CURL* easy, Transfer& transfer) const;
  void collectFinished();
  void finish(CURL* easy, CURLcode result);
  void recycle(CURL* easy);
  void shutDown(std::vector<Request> queued);

  // Made by the thread as it starts and destroyed after it ends. Other threads only call
  // curl_multi_wakeup (libcurl allows that), once `started` says the handle is there.
  CURLM* multi = nullptr;
  curl_slist* postHeaders = nullptr;  // immutable once started
  std::atomic<long> connectionsOpened{0};

  std::mutex mutex;
  std::vector<Request> queue;   // guarded by mutex
  bool started = false;         // guarded by mutex: `multi` is ready for wake-ups
  bool failed = false;          // guarded by mutex: libcurl could not start; nothing is taken
  bool stopping = false;        // guarded by mutex
  bool finished = false;        // guarded by mutex: the thread has shut down and left libcurl
  bool stoppedForExit = false;  // guarded by mutex: stopped by the exit handler, not a destructor
  std::condition_variable finishedChanged;
  std::atomic<std::thread::id> runner{};

  // Confined to the transport thread.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
  std::vector<CURL*> idle;
};

bool HTTPClient::State::startUp() {
  bool usable = false;
  std::vector<Request> unserved;
  {
    // Counted by the fork gate: a child must not inherit libcurl or the TLS library half made.
    const forkgate::Task gate;
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
    usable = multi != nullptr && postHeaders != nullptr;
    std::scoped_lock lock(mutex);
    started = usable;
    failed = !usable;
    if (failed) unserved.swap(queue);
  }
  if (usable) return true;
  Debug(VantrelLogLevel::error, "Unable to initialise the HTTP transport");
  for (Request& request : unserved) {
    deliver(request.completion, std::nullopt, std::nullopt,
            curlError(CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT)));
  }
  return false;
}

void HTTPClient::State::run() {
  pthread_setname_np(pthread_self(), "VNTRTransport");
  runInBackground();
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
  if (!startUp()) return;
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
  registerExitHandlers();
}

HTTPClient::~HTTPClient() {
  std::call_once(threadStarted_, [this] { state_->refuseAll(true); });
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

void HTTPClient::startThread() {
  bool unable = false;
  std::call_once(threadStarted_, [&] {
    stopAtExit(state_);
    try {
      // libcurl and the TLS library are initialised on the thread, not the caller's.
      thread_ = std::thread([state = state_] { state->run(); });
    } catch (const std::system_error&) {
      state_->refuseAll(false);
      unable = true;
    }
  });
  // Outside call_once: a log callback may post again.
  if (unable) Debug(VantrelLogLevel::error, "Unable to initialise the HTTP transport");
}

void HTTPClient::post(std::string body, const std::string& url, HTTPCompletion completion) {
  submit(true, std::move(body), url, std::move(completion));
}

void HTTPClient::get(const std::string& url, HTTPCompletion completion) {
  submit(false, std::string(), url, std::move(completion));
}

void HTTPClient::stop(std::chrono::steady_clock::time_point deadline) {
  std::call_once(threadStarted_, [this] { state_->refuseAll(true); });
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
  startThread();
  Request request{isPost, std::move(*parsed), std::move(body),
                  timeoutMilliseconds(requestTimeout_()), std::move(completion)};
  if (auto refused = state_->enqueue(std::move(request))) {
    // Shutting down (a completion that posts again during destruction, say), or libcurl never
    // started.
    const bool stopped = refused->code == CURLE_ABORTED_BY_CALLBACK;
    deliver(refused->request.completion, std::nullopt, std::nullopt,
            curlError(refused->code,
                      stopped ? kShutDownDescription : curl_easy_strerror(refused->code)));
  }
}

}  // namespace vntr
