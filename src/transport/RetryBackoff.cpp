#include "transport/RetryBackoff.hpp"

#include <algorithm>
#include <cmath>

namespace vntr {

namespace {
// Past this many doublings the step is at its cap anyway; the counter stops growing there.
constexpr int kMaxDoublings = 16;
}  // namespace

RetryBackoff::RetryBackoff(Random random)
    : random_(std::move(random)), engine_(std::random_device{}()) {}

double RetryBackoff::nextDelay(double intervalSeconds, std::optional<double> retryAfter) {
  std::scoped_lock lock(mutex_);
  failures_ = std::min(failures_ + 1, kMaxDoublings);
  const double base =
      std::isfinite(intervalSeconds) ? std::max(intervalSeconds, kInitialSeconds) : kInitialSeconds;
  const double step = std::min(kMaxSeconds, base * std::ldexp(1.0, failures_));
  const double unit =
      random_ ? random_() : std::uniform_real_distribution<double>(0.0, 1.0)(engine_);
  // Half fixed, half random: waits still grow visibly, and failed devices drift apart.
  double delay = step / 2 + std::clamp(unit, 0.0, 1.0) * step / 2;
  if (retryAfter && std::isfinite(*retryAfter)) {
    delay = std::max(delay, std::clamp(*retryAfter, 0.0, kMaxRetryAfterSeconds));
  }
  return delay;
}

void RetryBackoff::reset() {
  std::scoped_lock lock(mutex_);
  failures_ = 0;
}

int RetryBackoff::failures() const {
  std::scoped_lock lock(mutex_);
  return failures_;
}

}  // namespace vntr
