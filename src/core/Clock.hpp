#pragma once

#include <atomic>
#include <chrono>

namespace vntr {

/// Wall-clock time, injectable so tests can pin and step it.
class Clock {
 public:
  using time_point = std::chrono::system_clock::time_point;
  virtual ~Clock() = default;
  virtual time_point now() const = 0;
};

class SystemClock final : public Clock {
 public:
  time_point now() const override { return std::chrono::system_clock::now(); }
};

/// A clock that moves only when told to. Safe to read from any thread.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(time_point start = time_point{std::chrono::seconds{1'700'000'000}})
      : now_(start.time_since_epoch().count()) {}
  time_point now() const override { return time_point{time_point::duration{now_.load()}}; }
  void set(time_point t) { now_.store(t.time_since_epoch().count()); }
  void advance(std::chrono::nanoseconds d) {
    now_.fetch_add(std::chrono::duration_cast<time_point::duration>(d).count());
  }

 private:
  std::atomic<time_point::rep> now_;
};

}  // namespace vntr
