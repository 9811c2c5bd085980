#include "Measurements.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <latch>
#include <numeric>
#include <string_view>
#include <vntr/VNTRTagManager.hpp>

#include "Runtime.hpp"
#include "store/EventDataManager.hpp"
#include "transport/HTTPClient.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::bench {

int64_t nanosSince(SteadyClock::time_point start, SteadyClock::time_point end) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
}

double secondsBetween(SteadyClock::time_point start, SteadyClock::time_point end) {
  return std::chrono::duration<double>(end - start).count();
}

double round3(double value) { return std::round(value * 1000.0) / 1000.0; }

int64_t queuedRequests() {
  auto& store = Runtime::shared().store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

namespace {

// One read of a small /proc file into `text`; the bytes read, 0 when it cannot be read.
size_t readProcFile(const char* path, char* text, size_t size) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t n = ::read(fd, text, size);
  ::close(fd);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

// The first line of a small /proc file, without its newline; empty when it cannot be read.
std::string firstLine(const std::string& path) {
  char text[128];
  const std::string_view read(text, readProcFile(path.c_str(), text, sizeof text));
  return std::string(read.substr(0, read.find('\n')));
}

}  // namespace

ProcStatus::ProcStatus() {
  text_[readProcFile("/proc/self/status", text_, sizeof text_ - 1)] = '\0';
}

int64_t ProcStatus::kib(const char* key) const {
  const char* at = std::strstr(text_, key);
  return at != nullptr ? std::atoll(at + std::strlen(key)) : -1;
}

// Plain system calls: it runs before the peak is read, and file streams would map libstdc++'s
// stream and locale code into the measured process.
int64_t threadCpuNanos(const std::string& name) {
  DIR* tasks = ::opendir("/proc/self/task");
  if (tasks == nullptr) return 0;
  int64_t nanos = 0;
  while (const dirent* task = ::readdir(tasks)) {
    const std::string dir = std::string("/proc/self/task/") + task->d_name;
    if (task->d_name[0] == '.' || firstLine(dir + "/comm") != name) continue;
    nanos = std::atoll(firstLine(dir + "/schedstat").c_str());
    break;
  }
  ::closedir(tasks);
  return nanos;
}

long connectionsOpened() {
  const auto* client = dynamic_cast<const HTTPClient*>(&Runtime::shared().httpClient());
  return client ? client->connectionsOpened() : -1;
}

namespace {

constexpr std::array<const char*, 4> kEventNames = {"screen_view", "tap", "add_to_cart",
                                                    "purchase"};

// `nanos` sorted.
double percentileMicros(const std::vector<uint32_t>& nanos, double p) {
  if (nanos.empty()) return 0;
  const auto k = static_cast<size_t>(std::ceil(p * static_cast<double>(nanos.size()))) - 1;
  return round3(static_cast<double>(nanos[k]) / 1000.0);
}

double meanMillis(int64_t nanos, int64_t count) {
  return count > 0 ? round3(static_cast<double>(nanos) / 1e6 / static_cast<double>(count)) : 0.0;
}

}  // namespace

Firing fire(int64_t events, int threads, int64_t pace, const std::function<int64_t()>& stored) {
  // One slot per call, written by the thread that makes it: the harness's own memory stays
  // small beside the library's (100,000 calls take 400 KB).
  Firing firing;
  firing.callNanos.resize(static_cast<size_t>(events));
  std::latch ready(threads + 1);
  std::atomic<int64_t> issued{0};
  const int64_t storedBefore = stored();
  const auto giveUp = SteadyClock::now() + std::chrono::seconds(60) +
                      std::chrono::milliseconds(events);  // a stalled store ends the pacing
  std::vector<std::thread> callers;
  for (int t = 0; t < threads; ++t) {
    callers.emplace_back([&, t] {
      // The arguments are made once and only the sequence number changes, so the instruction
      // counts of a run are the library's and not the making of a fresh JSON tree per call.
      std::array<std::vector<std::string>, kEventNames.size()> names;
      for (size_t i = 0; i < names.size(); ++i) names[i] = {kEventNames[i]};
      const std::string group = "bench";
      json data = {{"seq", 0}, {"thread", t}, {"price", 9.99}, {"currency", "EUR"}};
      json& sequence = data["seq"];
      ready.arrive_and_wait();
      for (int64_t seq = t; seq < events; seq += threads) {
        while (pace > 0 && issued.load() - (stored() - storedBefore) > pace &&
               SteadyClock::now() < giveUp) {
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        sequence = seq;
        const auto before = SteadyClock::now();
        VNTRTagManager::fireEvents(names[static_cast<size_t>(seq) % names.size()], group, data);
        const int64_t took = nanosSince(before, SteadyClock::now());
        firing.callNanos[static_cast<size_t>(seq)] =
            static_cast<uint32_t>(std::min<int64_t>(took, UINT32_MAX));
        issued.fetch_add(1);
      }
    });
  }
  firing.start = SteadyClock::now();
  ready.arrive_and_wait();
  for (auto& caller : callers) caller.join();
  firing.end = SteadyClock::now();
  return firing;
}

json callFigures(Firing& firing) {
  auto& n = firing.callNanos;
  const double first = n.empty() ? 0 : round3(static_cast<double>(n.front()) / 1000.0);
  const double mean = n.empty()
                          ? 0
                          : static_cast<double>(std::accumulate(n.begin(), n.end(), int64_t{0})) /
                                static_cast<double>(n.size()) / 1000.0;
  std::sort(n.begin(), n.end());
  return {{"fire_p50_us", percentileMicros(n, 0.50)},
          {"fire_p99_us", percentileMicros(n, 0.99)},
          {"fire_p999_us", percentileMicros(n, 0.999)},
          {"fire_max_us", n.empty() ? 0 : round3(static_cast<double>(n.back()) / 1000.0)},
          {"fire_mean_us", round3(mean)},
          {"first_call_us", first},
          {"calls_returned_s", round3(secondsBetween(firing.start, firing.end))}};
}

BatchCycleClock::Totals libraryCycleTotals() { return Runtime::shared().requester().cycleTotals(); }

json libraryCycleFigures(const BatchCycleClock::Totals& since) {
  const auto now = libraryCycleTotals();
  const int64_t replies = now.replies - since.replies;
  const int64_t sends = now.sends - since.sends;
  const double replyMs = meanMillis(now.replyNanos - since.replyNanos, replies);
  const double sendMs = meanMillis(now.sendNanos - since.sendNanos, sends);
  return {{"library_cycle_ms", round3(replyMs + sendMs)},
          {"library_reply_to_timer_ms", replyMs},
          {"library_reply_to_timer_max_ms", meanMillis(now.replyMaxNanos, 1)},
          {"library_timer_to_send_ms", sendMs},
          {"library_timer_to_send_max_ms", meanMillis(now.sendMaxNanos, 1)},
          {"library_cycles", std::min(replies, sends)}};
}

}  // namespace vntr::bench
