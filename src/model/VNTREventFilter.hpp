#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/Clock.hpp"

namespace vntr {

/// The server's list of qualified events: the names it wants to receive, which of them skip
/// the batch delay, and until when the list holds.
///
/// The list is an immutable snapshot replaced whole by `updateFromResult`; readers on any
/// thread see either the old list or the new one, never a half-built one. Only the pointer is
/// guarded (briefly, by a mutex); readers work on their own reference without any lock.
class VNTREventFilter {
 public:
  struct Snapshot {
    std::unordered_set<std::string> qualifiedEvents;
    std::unordered_map<std::string, bool> qualifiedEventIgnoreBatch;
    double expiry = 0;  // seconds since 2001-01-01 UTC
  };

  /// `initialExpiry` is the user-defaults value "VNTREventsExpiry" (0 when absent), read once
  /// by the wiring. A value that is not a finite number counts as 0.
  VNTREventFilter(double initialExpiry, std::shared_ptr<const Clock> clock);

  /// The current list; any thread.
  std::shared_ptr<const Snapshot> snapshot() const;

  /// Replaces the list with the names of `records` (a JSON array of objects; anything else
  /// counts as an empty array) valid for `expiryMillis` from now. A record without a string
  /// "eventName" is skipped; a boolean "ignoreBatch" is kept per name, the later record
  /// winning. Any thread.
  void updateFromResult(const nlohmann::json& records, int64_t expiryMillis);

  /// True when the list has expired (expiry < now): it then filters nothing.
  bool isStale(const Snapshot& snapshot) const;
  /// Whether a call with these events passes the qualified-event check: always while stale,
  /// otherwise when at least one event is qualified. Any thread.
  bool admits(const std::vector<std::string>& events) const;
  /// Whether a call with these events is to be sent at once: the list is fresh and one of
  /// the events has "ignoreBatch" true. Any thread.
  bool wantsImmediateSend(const std::vector<std::string>& events) const;

 private:
  double now() const;

  const std::shared_ptr<const Clock> clock_;
  // A mutex rather than std::atomic<std::shared_ptr>: libstdc++ 12 implements the latter with a
  // lock bit that ThreadSanitizer cannot see, so it reports races that are not there.
  mutable std::mutex mutex_;
  std::shared_ptr<const Snapshot> snapshot_;  // guarded by mutex_; the pointee never changes
};

}  // namespace vntr
