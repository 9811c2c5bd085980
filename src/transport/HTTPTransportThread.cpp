#include "transport/HTTPTransportThread.hpp"

#include <curl/curl.h>
#include <cxxabi.h>
#include <pthread.h>

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/ForkGate.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {
namespace detail {

HTTPError curlError(CURLcode code, const char* description) {
  constexpr const char* kCurlErrorDomain = "CURL";
  return HTTPError{kCurlErrorDomain, static_cast<long>(code), description};
}

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

}  // namespace detail

using detail::curlError;
using detail::deliver;
using detail::initializeCurlOnce;
using detail::kShutDownDescription;
using detail::Request;
using detail::Transfer;

namespace {

// Only an upper bound: curl shortens the wait for its own timers, and new work wakes the thread,
// so an idle client costs nothing but this occasional turn.
constexpr int kPollMilliseconds = 30'000;
constexpr size_t kMaxIdleHandles = 8;
constexpr long kMaxHostConnections = 6;

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

}  // namespace vntr
