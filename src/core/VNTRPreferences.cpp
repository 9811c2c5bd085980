#include <vntr/VNTRPreferences.hpp>

#include "core/HostCallbacks.hpp"

namespace vntr {

std::optional<VantrelLogLevel> VantrelLogLevel::fromRawValue(int64_t rawValue) {
  switch (rawValue) {
    case fatal:
    case error:
    case warning:
    case info:
    case debug:
    case verbose:
      return VantrelLogLevel(static_cast<Value>(rawValue));
    default:
      return std::nullopt;
  }
}

std::string_view VantrelLogLevel::description() const {
  switch (value_) {
    case fatal:
      return "Fatal";
    case error:
      return "Error";
    case warning:
      return "Warning";
    case info:
      return "Info";
    case debug:
      return "Debug";
    case verbose:
      return "Verbose";
  }
  return "Unknown";
}

namespace {
std::shared_ptr<const VNTRPreferences::LoggingCallback> defaultLoggingCallback() {
  return std::make_shared<const VNTRPreferences::LoggingCallback>(&VNTRLog);
}
}  // namespace

detail::HostCallbacks& detail::hostCallbacks() {
  static auto* const callbacks = new HostCallbacks(defaultLoggingCallback());  // never destroyed
  return *callbacks;
}

VNTRPreferences& VNTRPreferences::sharedPreferences() {
  static auto* const instance = [] {
    auto* preferences = new VNTRPreferences;  // never destroyed: read at exit by threads
    // The library calls the callbacks through these; the shared_ptr only borrows them.
    preferences->callbacks_ = std::shared_ptr<detail::HostCallbacks>(&detail::hostCallbacks(),
                                                                     [](detail::HostCallbacks*) {});
    return preferences;
  }();
  return *instance;
}

VNTRPreferences::VNTRPreferences()
    : callbacks_(std::make_shared<detail::HostCallbacks>(defaultLoggingCallback())),
      serverURL_(kDefaultServerURL) {}

VantrelLogLevel VNTRPreferences::logLevel() const {
  return VantrelLogLevel::fromRawValue(logLevel_.load(std::memory_order_relaxed))
      .value_or(VantrelLogLevel::warning);
}

void VNTRPreferences::setLogLevel(VantrelLogLevel level) {
  logLevel_.store(level.rawValue(), std::memory_order_relaxed);
}

std::shared_ptr<const VNTRPreferences::LoggingCallback> VNTRPreferences::loggingCallback() const {
  return callbacks_->log.current();
}

void VNTRPreferences::setLoggingCallback(LoggingCallback callback) {
  callbacks_->log.replace(callback ? std::make_shared<const LoggingCallback>(std::move(callback))
                                   : defaultLoggingCallback());
}

std::shared_ptr<VNTRTagManagerDelegate> VNTRPreferences::tagManagerDelegate() const {
  return callbacks_->delegate.current();
}

void VNTRPreferences::setTagManagerDelegate(std::shared_ptr<VNTRTagManagerDelegate> delegate) {
  callbacks_->delegate.replace(std::move(delegate));
}

bool VNTRPreferences::callbacksAtExit() const { return callbacks_->callbacksAtExit.load(); }

void VNTRPreferences::setCallbacksAtExit(bool enabled) {
  callbacks_->callbacksAtExit.store(enabled);
}

std::string VNTRPreferences::serverURL() const {
  std::scoped_lock lock(mutex_);
  return serverURL_;
}

void VNTRPreferences::setServerURL(std::string url) {
  std::scoped_lock lock(mutex_);
  serverURL_ = std::move(url);
}

double VNTRPreferences::requestTimeout() const {
  return requestTimeout_.load(std::memory_order_relaxed);
}

void VNTRPreferences::setRequestTimeout(double seconds) {
  requestTimeout_.store(seconds, std::memory_order_relaxed);
}

std::string VNTRPreferences::consentCheckURL() const {
  std::scoped_lock lock(mutex_);
  return consentCheckURL_;
}

void VNTRPreferences::setConsentCheckURL(std::string url) {
  std::scoped_lock lock(mutex_);
  consentCheckURL_ = std::move(url);
}

bool VNTRPreferences::retryBackoff() const { return retryBackoff_.load(std::memory_order_relaxed); }

void VNTRPreferences::setRetryBackoff(bool enabled) {
  retryBackoff_.store(enabled, std::memory_order_relaxed);
}

}  // namespace vntr
