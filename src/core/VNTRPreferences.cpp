#include <vntr/VNTRPreferences.hpp>

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

VNTRPreferences& VNTRPreferences::sharedPreferences() {
  static auto* const instance = new VNTRPreferences;  // never destroyed: read at exit by threads
  return *instance;
}

namespace {
std::shared_ptr<const VNTRPreferences::LoggingCallback> defaultLoggingCallback() {
  return std::make_shared<const VNTRPreferences::LoggingCallback>(&VNTRLog);
}
}  // namespace

VNTRPreferences::VNTRPreferences()
    : loggingCallback_(defaultLoggingCallback()), serverURL_(kDefaultServerURL) {}

VantrelLogLevel VNTRPreferences::logLevel() const {
  return VantrelLogLevel::fromRawValue(logLevel_.load(std::memory_order_relaxed))
      .value_or(VantrelLogLevel::warning);
}

void VNTRPreferences::setLogLevel(VantrelLogLevel level) {
  logLevel_.store(level.rawValue(), std::memory_order_relaxed);
}

std::shared_ptr<const VNTRPreferences::LoggingCallback> VNTRPreferences::loggingCallback() const {
  std::scoped_lock lock(mutex_);
  return loggingCallback_;
}

void VNTRPreferences::setLoggingCallback(LoggingCallback callback) {
  auto next = callback ? std::make_shared<const LoggingCallback>(std::move(callback))
                       : defaultLoggingCallback();
  std::scoped_lock lock(mutex_);
  loggingCallback_.swap(next);
  // The previous callback is released outside the lock, when `next` goes out of scope.
}

std::shared_ptr<VNTRTagManagerDelegate> VNTRPreferences::tagManagerDelegate() const {
  std::scoped_lock lock(mutex_);
  return delegate_;
}

void VNTRPreferences::setTagManagerDelegate(std::shared_ptr<VNTRTagManagerDelegate> delegate) {
  std::scoped_lock lock(mutex_);
  delegate_.swap(delegate);
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
