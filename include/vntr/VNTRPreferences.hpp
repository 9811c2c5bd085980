#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <vntr/Export.hpp>

namespace vntr {

/// Severity of a log message; lower raw values are more severe.
class VNTR_API VantrelLogLevel {
 public:
  enum Value : int { fatal = 1, error = 2, warning = 4, info = 8, debug = 16, verbose = 32 };

  constexpr VantrelLogLevel(Value value) : value_(value) {}  // NOLINT(google-explicit-constructor)
  /// The level with this raw value, or nothing for any other integer.
  static std::optional<VantrelLogLevel> fromRawValue(int64_t rawValue);
  constexpr int rawValue() const { return value_; }
  constexpr operator Value() const { return value_; }  // NOLINT(google-explicit-constructor)
  /// The word used in log lines: "Fatal", "Error", "Warning", "Info", "Debug", "Verbose".
  std::string_view description() const;

 private:
  Value value_;
};

/// The counters reported to the delegate. The library only reports increments.
class VNTR_API VNTRStatistic {
 public:
  enum Value : int64_t {
    batchRequestSent = 0,
    eventsSent = 1,
    responseReceived = 2,
    requestFailed = 3,
    responseEmpty = 4,
    responseDataReceived = 5,
    responseParsed = 6,
    responseUnparsable = 7,
    eventResultProcessed = 8,
    eventCreated = 9,
  };

  constexpr VNTRStatistic(Value value) : value_(value) {}  // NOLINT(google-explicit-constructor)
  /// The statistic with this raw value (0 to 9), or nothing.
  static std::optional<VNTRStatistic> fromRawValue(int64_t rawValue);
  /// All ten statistics in raw-value order.
  static const std::array<VNTRStatistic, 10>& allValues();
  constexpr int64_t rawValue() const { return value_; }
  constexpr operator Value() const { return value_; }  // NOLINT(google-explicit-constructor)
  /// The case name, for example "eventCreated".
  std::string_view description() const;

 private:
  Value value_;
};

/// Receives counter increments. Called synchronously on library threads (the store queue,
/// the transport thread, the main queue), so an implementation must be safe on any thread.
/// An exception thrown from it is caught and logged; it never reaches the library's threads.
class VNTRTagManagerDelegate {
 public:
  virtual ~VNTRTagManagerDelegate() = default;
  virtual void notifyForStatistic(int64_t statistic, int64_t adjustment) = 0;
};

/// Process-wide configuration. Every setting may be read and written from any thread.
class VNTR_API VNTRPreferences {
 public:
  /// Receives every log message of every level; the default filters by `logLevel` and writes
  /// one line to stderr.
  using LoggingCallback = std::function<void(VantrelLogLevel, const std::vector<std::string>&)>;

  static constexpr double kDefaultRequestTimeout = 30.0;
  static constexpr const char* kDefaultServerURL = "https://tags.vantrel.com/tags";

  /// The one instance the library reads; created on first use and never destroyed.
  static VNTRPreferences& sharedPreferences();

  /// A separate instance has no effect on the library; it exists for symmetry with the
  /// platform's public initialiser.
  VNTRPreferences();
  VNTRPreferences(const VNTRPreferences&) = delete;
  VNTRPreferences& operator=(const VNTRPreferences&) = delete;

  VantrelLogLevel logLevel() const;
  void setLogLevel(VantrelLogLevel level);

  /// The current callback; never empty.
  std::shared_ptr<const LoggingCallback> loggingCallback() const;
  /// An empty callback restores the default.
  void setLoggingCallback(LoggingCallback callback);

  /// Held strongly until replaced or cleared.
  std::shared_ptr<VNTRTagManagerDelegate> tagManagerDelegate() const;
  void setTagManagerDelegate(std::shared_ptr<VNTRTagManagerDelegate> delegate);

  std::string serverURL() const;
  void setServerURL(std::string url);

  /// Seconds; read by the transport at each post.
  double requestTimeout() const;
  void setRequestTimeout(double seconds);

  /// The consent-check URL. Empty (the default) means the one that belongs to `serverURL`: same
  /// scheme, host and port, path "/gdpr/check/json/current". Read when a check starts.
  std::string consentCheckURL() const;
  void setConsentCheckURL(std::string url);

  /// Backoff after failed batches, off by default. When on, a batch that got no HTTP response, a
  /// 5xx or 429 status, or a body that is not a usable answer makes the next one wait about twice
  /// as long as the last (from one to two batch intervals of at least 1 s, with random jitter,
  /// at most 5 minutes), and at least what the server's Retry-After asks (at most an hour); the
  /// first good answer restores the server's interval. When off, batches keep the server's pace
  /// whatever the outcome.
  bool retryBackoff() const;
  void setRetryBackoff(bool enabled);

 private:
  std::atomic<int> logLevel_{VantrelLogLevel::warning};
  std::atomic<double> requestTimeout_{kDefaultRequestTimeout};
  std::atomic<bool> retryBackoff_{false};
  mutable std::mutex mutex_;
  std::shared_ptr<const LoggingCallback> loggingCallback_;  // guarded by mutex_
  std::shared_ptr<VNTRTagManagerDelegate> delegate_;        // guarded by mutex_
  std::string serverURL_;                                   // guarded by mutex_
  std::string consentCheckURL_;                             // guarded by mutex_
};

/// The default logging callback: writes "[Level] pieces,joined" to stderr when `log_level` is
/// at least as severe as the configured level.
VNTR_API void VNTRLog(VantrelLogLevel log_level, const std::vector<std::string>& strings);

}  // namespace vntr
