// Measurements for vntr-bench: statistics counted through the delegate, resident memory,
// thread CPU time, timed calls of fireEvents, and the library's own share of the batch cycles.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

#include "transport/BatchCycleClock.hpp"

namespace vntr::bench {

using nlohmann::json;
using SteadyClock = std::chrono::steady_clock;

int64_t nanosSince(SteadyClock::time_point start, SteadyClock::time_point end);
double secondsBetween(SteadyClock::time_point start, SteadyClock::time_point end);
double round3(double value);

// Sums every statistic and wakes a waiter when a watched total reaches its target, noting when
// that happened (on the library thread that reported it, so the time is exact).
class BenchDelegate final : public VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    if (statistic < 0 || statistic >= kCount) return;
    const auto s = static_cast<size_t>(statistic);
    const int64_t total = totals_[s].fetch_add(adjustment) + adjustment;
    if (statistic == VNTRStatistic::batchRequestSent) noteSent();
    if (statistic == VNTRStatistic::responseReceived) noteReply();
    const int64_t target = targets_[s].load();
    if (target > 0 && total >= target && total - adjustment < target) {
      reachedAt_[s].store(SteadyClock::now().time_since_epoch().count());
      std::scoped_lock lock(mutex_);
      reached_.notify_all();
    }
  }

  /// Batches are never in flight together, so sends and replies alternate: the time from a
  /// send to its reply is the round trip (transfer and server), from a reply to the next send
  /// the client's handling of the reply plus the pause the server asked for.
  struct Cycles {
    int64_t roundTrips = 0;
    double roundTripMs = 0;  // mean
    int64_t gaps = 0;
    double gapMs = 0;  // mean
  };
  void resetCycles() {
    lastSent_.store(0);
    lastReply_.store(0);
    roundTripNanos_.store(0);
    roundTrips_.store(0);
    gapNanos_.store(0);
    gaps_.store(0);
  }
  Cycles cycles() const {
    Cycles c;
    c.roundTrips = roundTrips_.load();
    c.gaps = gaps_.load();
    if (c.roundTrips > 0) {
      c.roundTripMs =
          static_cast<double>(roundTripNanos_.load()) / 1e6 / static_cast<double>(c.roundTrips);
    }
    if (c.gaps > 0)
      c.gapMs = static_cast<double>(gapNanos_.load()) / 1e6 / static_cast<double>(c.gaps);
    return c;
  }

  int64_t total(VNTRStatistic statistic) const {
    return totals_[static_cast<size_t>(statistic.rawValue())].load();
  }

  /// Watches `statistic` for `target`; call before the work that reports it.
  void watch(VNTRStatistic statistic, int64_t target) {
    const auto s = static_cast<size_t>(statistic.rawValue());
    reachedAt_[s].store(0);
    targets_[s].store(target);
  }

  /// Waits until the watched target of `statistic` is reached; when it was reached, or nothing
  /// at the deadline.
  std::optional<SteadyClock::time_point> wait(VNTRStatistic statistic,
                                              SteadyClock::time_point deadline) {
    const auto s = static_cast<size_t>(statistic.rawValue());
    std::unique_lock lock(mutex_);
    if (!reached_.wait_until(lock, deadline,
                             [&] { return totals_[s].load() >= targets_[s].load(); })) {
      return std::nullopt;
    }
    const auto at = reachedAt_[s].load();
    return at == 0 ? SteadyClock::now() : SteadyClock::time_point(SteadyClock::duration(at));
  }

 private:
  static int64_t now() { return SteadyClock::now().time_since_epoch().count(); }
  void noteSent() {
    const int64_t at = now();
    lastSent_.store(at);
    if (const int64_t reply = lastReply_.load(); reply != 0) {
      gapNanos_.fetch_add(at - reply);
      gaps_.fetch_add(1);
    }
  }
  void noteReply() {
    const int64_t at = now();
    if (const int64_t sent = lastSent_.load(); sent != 0) {
      roundTripNanos_.fetch_add(at - sent);
      roundTrips_.fetch_add(1);
    }
    lastReply_.store(at);
  }

  static constexpr int64_t kCount = 10;
  std::atomic<int64_t> lastSent_{0}, lastReply_{0}, roundTripNanos_{0}, roundTrips_{0},
      gapNanos_{0}, gaps_{0};
  std::array<std::atomic<int64_t>, kCount> totals_{};
  std::array<std::atomic<int64_t>, kCount> targets_{};
  std::array<std::atomic<SteadyClock::rep>, kCount> reachedAt_{};
  std::mutex mutex_;
  std::condition_variable reached_;
};

/// /proc/self/status as one read saw it. Read without stdio: a stream's buffer would give a
/// sampling thread a malloc arena of its own, and that memory is not the library's.
class ProcStatus {
 public:
  ProcStatus();
  /// The value of a "Key:" line in KiB, or -1.
  int64_t kib(const char* key) const;

 private:
  char text_[4096] = {};
};
/// The process's peak resident memory (VmHWM), in KiB. Not getrusage's ru_maxrss: that also
/// counts the image the launching process had before the exec (a Python parent's 14 MiB), which
/// would hide this process's own peak.
inline int64_t peakRssKiB() { return ProcStatus().kib("VmHWM:"); }
/// The anonymous resident memory now (heap, stacks, written library data), in KiB.
inline int64_t anonRssKiB() { return ProcStatus().kib("RssAnon:"); }

// The peak resident memory counts the pages of the shared libraries in use (libc, libstdc++,
// SQLite, curl and its TLS libraries), which other processes share. To tell them from the
// process's own memory (heap, stacks), a thread samples the anonymous and the file-backed
// resident sizes every 10 ms and keeps the largest of each.
class MemorySampler {
 public:
  MemorySampler() : thread_([this] { run(); }) {}
  ~MemorySampler() {
    {
      std::scoped_lock lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  int64_t peakAnonKiB() {
    sample();
    return peakAnon_.load();
  }
  int64_t peakFileKiB() {
    sample();
    return peakFile_.load();
  }

 private:
  void sample() {
    const ProcStatus status;
    raise(peakAnon_, status.kib("RssAnon:"));
    raise(peakFile_, status.kib("RssFile:"));
  }
  static void raise(std::atomic<int64_t>& peak, int64_t value) {
    int64_t seen = peak.load();
    while (value > seen && !peak.compare_exchange_weak(seen, value)) {
    }
  }
  void run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
      lock.unlock();
      sample();
      lock.lock();
      wake_.wait_for(lock, std::chrono::milliseconds(10), [this] { return stop_; });
    }
  }

  std::atomic<int64_t> peakAnon_{0};
  std::atomic<int64_t> peakFile_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;  // guarded by mutex_
  std::thread thread_;
};

/// Requests in the store of the process-wide runtime, after the store work queued so far.
int64_t queuedRequests();
// CPU time used so far by this process's thread named `name`, in nanoseconds; 0 before it
// exists. The store's thread rate per CPU second does not depend on what else the machine runs.
int64_t threadCpuNanos(const std::string& name);
long connectionsOpened();

/// Per-call times of fireEvents on the callers' threads, in nanoseconds, by sequence number.
struct Firing {
  std::vector<uint32_t> callNanos;
  SteadyClock::time_point start, end;  // first call started, last call returned
};

// Fires sequence numbers 0 ... events-1 from `threads` threads started together, timing each
// call on its own thread. With `pace` > 0 the callers, together, stay at most `pace` calls ahead
// of the events reported stored (`stored()`), as a host firing at a sustainable rate would.
Firing fire(int64_t events, int threads, int64_t pace, const std::function<int64_t()>& stored);

/// The figures of `firing`; sorts its call times.
json callFigures(Firing& firing);

/// The requester's batch-cycle clock now.
BatchCycleClock::Totals libraryCycleTotals();
/// The library's own share of the batch cycles since `since`, from the requester's clock: the
/// handling of each reply until the next timer is armed, and each expiry until the request
/// leaves (means; the maxima are the process's).
json libraryCycleFigures(const BatchCycleClock::Totals& since);

}  // namespace vntr::bench
