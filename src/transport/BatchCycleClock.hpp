#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace vntr {

/// The library's own share of each batch cycle, apart from the server's time and the pause the
/// server asks for: from a reply's arrival until the next timer is armed (answers dispatched,
/// the main queue reached; their deletes are committed after), and from that timer's expiry
/// until the next request is handed to the transport (lock, dequeue, body). A few clock reads per
/// cycle; any thread.
class BatchCycleClock {
 public:
  struct Totals {
    int64_t replies = 0;  // replies followed by an armed timer
    int64_t replyNanos = 0, replyMaxNanos = 0;
    int64_t sends = 0;  // timer expiries that sent a request
    int64_t sendNanos = 0, sendMaxNanos = 0;
  };

  void replyArrived() { replyAt_.store(now()); }
  /// Closes the reply's span, if one is open (the first timer follows no reply).
  void timerArmed() {
    if (const int64_t at = replyAt_.exchange(0); at != 0) add(now() - at, replies_, reply_);
  }
  /// Marks the start of a send; `requestLeft` closes it.
  int64_t timerFired() const { return now(); }
  void requestLeft(int64_t firedAt) { add(now() - firedAt, sends_, send_); }

  Totals totals() const {
    return {replies_.load(), reply_.sum.load(), reply_.max.load(),
            sends_.load(),   send_.sum.load(),  send_.max.load()};
  }

 private:
  struct Span {
    std::atomic<int64_t> sum{0}, max{0};
  };
  static int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  static void add(int64_t nanos, std::atomic<int64_t>& count, Span& span) {
    count.fetch_add(1, std::memory_order_relaxed);
    span.sum.fetch_add(nanos, std::memory_order_relaxed);
    int64_t seen = span.max.load(std::memory_order_relaxed);
    while (nanos > seen && !span.max.compare_exchange_weak(seen, nanos)) {
    }
  }

  std::atomic<int64_t> replyAt_{0};
  std::atomic<int64_t> replies_{0}, sends_{0};
  Span reply_, send_;
};

}  // namespace vntr
