#include "transport/HTTPClient.hpp"

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vntr/VNTRPreferences.hpp>

#include "core/VNTRDebug.hpp"
#include "transport/HTTPSupport.hpp"
#include "transport/HTTPTransportThread.hpp"

namespace vntr {
namespace {

constexpr long kURLErrorCode = 9999;
constexpr const char* kURLErrorDomain = "URL Error";
constexpr const char* kURLErrorDescription = "URL could not be formed from string";

}  // namespace

using detail::curlError;
using detail::deliver;
using detail::kShutDownDescription;
using detail::registerExitHandlers;
using detail::Request;
using detail::stopAtExit;

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
