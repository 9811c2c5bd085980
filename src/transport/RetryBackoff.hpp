#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <random>

namespace vntr {

/// How long to wait after failed batches, when the host turned backoff on: the wait doubles with
/// each failure in a row, starting above the server's interval (at least kInitialSeconds) and
/// up to kMaxSeconds, and a random part spreads the devices that failed together. A server's
/// Retry-After is honoured up to kMaxRetryAfterSeconds, so a wrong header cannot silence a device
/// for days. Any thread.
class RetryBackoff {
 public:
  static constexpr double kInitialSeconds = 1.0;
  static constexpr double kMaxSeconds = 300.0;
  static constexpr double kMaxRetryAfterSeconds = 3600.0;

  /// Uniform numbers in [0, 1) for the jitter; the default is a generator seeded per instance.
  using Random = std::function<double()>;
  explicit RetryBackoff(Random random = {});

  /// Counts one more failure and returns the wait before the next batch: after the n-th failure
  /// in a row a random value between 2^(n-1) and 2^n times `intervalSeconds` (the server's
  /// pace, taken as at least kInitialSeconds), at most kMaxSeconds, and at least `retryAfter`
  /// (itself capped at kMaxRetryAfterSeconds).
  double nextDelay(double intervalSeconds, std::optional<double> retryAfter);
  /// A batch got a usable answer: the next failure starts from the first step again.
  void reset();
  /// Failures in a row so far.
  int failures() const;

 private:
  mutable std::mutex mutex_;
  Random random_;           // guarded by mutex_
  std::mt19937_64 engine_;  // guarded by mutex_
  int failures_ = 0;        // guarded by mutex_
};

}  // namespace vntr
