// vntr-bench: the whole library, end to end, against a sandbox tag server on 127.0.0.1. Prints
// one JSON line with the figures of the chosen mode.
//
//   vntr-bench [--events N] [--threads T]   N events from T threads until all are delivered
//   vntr-bench --backlog N                  drain time of N queued requests against its floor
//   vntr-bench --queued N                   peak memory with N requests queued, then a few batches
//
// The server is a program of its own (vntr-bench-server, next to this one): it keeps every
// request it receives, which would otherwise count as this process's memory and instructions.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "CliSupport.hpp"
#include "Measurements.hpp"
#include "SandboxProcess.hpp"
#include "transport/VNTRReachability.hpp"

namespace vntr::bench {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int64_t kEventsPerBatch = 80;

struct Options {
  enum class Mode { delivery, backlog, queued } mode = Mode::delivery;
  int64_t events = 10000;  // delivery: events fired; backlog/queued: requests queued
  int threads = 1;
  int64_t batchIntervalMs = 100;
  int64_t drainBatches = 25;  // queued: batches sent after the intake
  int64_t pace = 0;  // callers stay at most this many calls ahead of the store; 0: no limit
  bool sampleMemory = true;
};

const char* const kUsage =
    "usage: vntr-bench [--events N] [--threads T] [--batch-interval MS]\n"
    "       vntr-bench --backlog N [--threads T] [--batch-interval MS]\n"
    "       vntr-bench --queued N [--threads T] [--drain-batches K]\n"
    "options for every mode: --paced K (callers at most K calls ahead of the store),\n"
    "  --no-memory-sampling (no sampling thread, for instruction counts)\n";

std::optional<int64_t> number(const char* text, int64_t low, int64_t high) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < low || value > high) {
    return std::nullopt;
  }
  return value;
}

std::optional<Options> parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--no-memory-sampling") {
      o.sampleMemory = false;
      continue;
    }
    if (i + 1 >= argc) return std::nullopt;
    const char* value = argv[++i];
    std::optional<int64_t> n;
    if (arg == "--events") {
      n = number(value, 1, 1'000'000);
      o.mode = Options::Mode::delivery;
      if (n) o.events = *n;
    } else if (arg == "--backlog") {
      n = number(value, 1, 1'000'000);
      o.mode = Options::Mode::backlog;
      if (n) o.events = *n;
    } else if (arg == "--queued") {
      n = number(value, 1, 1'000'000);
      o.mode = Options::Mode::queued;
      if (n) o.events = *n;
    } else if (arg == "--threads") {
      n = number(value, 1, 64);
      if (n) o.threads = static_cast<int>(*n);
    } else if (arg == "--batch-interval") {
      n = number(value, 100, 120'000);
      if (n) o.batchIntervalMs = *n;
    } else if (arg == "--paced") {
      n = number(value, 0, 1'000'000);
      if (n) o.pace = *n;
    } else if (arg == "--drain-batches") {
      n = number(value, 0, 100'000);
      if (n) o.drainBatches = *n;
    }
    if (!n) return std::nullopt;
  }
  return o;
}

// Points the process-wide library at `root` (site ID, data, user defaults), at host-reported
// reachability starting from `flags`, and at the sandbox; consent is settled.
bool configureLibrary(const std::string& root, uint32_t flags, const std::string& url,
                      const std::shared_ptr<BenchDelegate>& delegate) {
  if (auto error = cli::writeSiteIdPlist(root + "/bundle", "12345")) {
    std::fprintf(stderr, "vntr-bench: %s\n", error->c_str());
    return false;
  }
  if (!VNTRTagManager::setMainBundlePath(root + "/bundle") ||
      !VNTRTagManager::setDocumentsDirectory(root + "/documents") ||
      !VNTRTagManager::setUserDefaultsPath(root + "/UserDefaults.json") ||
      !VNTRTagManager::useHostReachability(flags)) {
    std::fprintf(stderr, "vntr-bench: the library was already in use\n");
    return false;
  }
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setLogLevel(VantrelLogLevel::warning);
  preferences.setTagManagerDelegate(delegate);
  preferences.setServerURL(url);
  UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");
  return true;
}

SteadyClock::time_point deadlineFor(int64_t events, double floorSeconds = 0) {
  // Far beyond any healthy run: a minute, a millisecond per event, three times the floor.
  return SteadyClock::now() + std::chrono::seconds(60) + std::chrono::milliseconds(events) +
         std::chrono::milliseconds(static_cast<int64_t>(floorSeconds * 3000));
}

json deliveryFigures(SandboxHandle& server, int64_t events, int64_t extra) {
  const Delivery d = server.check(events);
  const bool exactlyOnce =
      d.distinct == events + extra && d.repeated == 0 && d.missing == 0 && d.doubled == 0;
  return {{"exactly_once", exactlyOnce},
          {"distinct_ids", d.distinct},
          {"resent", d.repeated},
          {"missing", d.missing},
          {"doubled", d.doubled}};
}

// N events from T threads until the queue is empty again.
json runDelivery(const Options& o, SandboxHandle& server, BenchDelegate& delegate, bool& ok) {
  delegate.watch(VNTRStatistic::eventCreated, o.events);
  delegate.watch(VNTRStatistic::eventResultProcessed, o.events);
  Firing firing = fire(o.events, o.threads, o.pace,
                       [&] { return delegate.total(VNTRStatistic::eventCreated); });
  const auto deadline = deadlineFor(o.events);
  const auto stored = delegate.wait(VNTRStatistic::eventCreated, deadline);
  const int64_t storeCpu = threadCpuNanos("VNTRStore");
  const auto answered = delegate.wait(VNTRStatistic::eventResultProcessed, deadline);
  const int64_t left = queuedRequests();  // waits for the last dispatch and its commit
  const auto delivered = SteadyClock::now();
  ok = stored && answered && left == 0;

  json out = {{"mode", "delivery"}, {"events", o.events}, {"threads", o.threads}};
  out.update(callFigures(firing));
  if (stored) {
    const double s = secondsBetween(firing.start, *stored);
    out["stored_s"] = round3(s);
    out["stored_per_s"] = std::lround(static_cast<double>(o.events) / s);
    out["store_thread_cpu_s"] = round3(static_cast<double>(storeCpu) / 1e9);
    out["stored_per_store_cpu_s"] = std::lround(
        static_cast<double>(o.events) * 1e9 / static_cast<double>(std::max<int64_t>(storeCpu, 1)));
  }
  if (answered) {
    const double s = secondsBetween(firing.start, delivered);
    out["delivered_s"] = round3(s);
    out["delivered_per_s"] = std::lround(static_cast<double>(o.events) / s);
  }
  out["still_queued"] = left;
  out["rss_anon_end_kib"] = anonRssKiB();  // once delivered: what the library keeps
  const auto stats = server.stats();
  out.update(deliveryFigures(server, o.events, 0));
  out["batches"] = stats.batches;
  out["bytes_per_event"] =
      round3(static_cast<double>(stats.bytesReceived) / static_cast<double>(o.events));
  out["connections"] = connectionsOpened();
  ok = ok && out["exactly_once"].get<bool>();
  return out;
}

// One event delivered first, so the requester has the server's batch interval; then N requests
// queued offline; then the network returns and the time runs until the queue is empty.
json runBacklog(const Options& o, SandboxHandle& server, BenchDelegate& delegate, bool& ok) {
  ok = false;
  delegate.watch(VNTRStatistic::eventResultProcessed, 1);
  VNTRTagManager::fireEvents({"warmup"}, "bench", json::object());
  VNTRTagManager::updateReachabilityFlags(VNTRReachability::kReachable);  // send it at once
  if (!delegate.wait(VNTRStatistic::eventResultProcessed, deadlineFor(1))) {
    return {{"mode", "backlog"}, {"error", "the warm-up event was not delivered"}};
  }
  VNTRTagManager::updateReachabilityFlags(0);
  delegate.watch(VNTRStatistic::eventCreated, o.events + 1);
  Firing firing = fire(o.events, o.threads, o.pace,
                       [&] { return delegate.total(VNTRStatistic::eventCreated); });
  const auto stored = delegate.wait(VNTRStatistic::eventCreated, deadlineFor(o.events));
  if (!stored) return {{"mode", "backlog"}, {"error", "the backlog was not stored"}};
  const int64_t queued = queuedRequests();
  const auto before = server.stats();
  const long connectionsBefore = connectionsOpened();
  const double interval = static_cast<double>(o.batchIntervalMs) / 1000.0;
  const int64_t batchesNeeded = (o.events + kEventsPerBatch - 1) / kEventsPerBatch;
  const double floorSeconds = static_cast<double>(batchesNeeded) * interval;

  delegate.watch(VNTRStatistic::eventResultProcessed, o.events + 1);
  delegate.resetCycles();
  const auto cyclesBefore = libraryCycleTotals();  // the warm-up event's cycle is not the drain's
  const auto start = SteadyClock::now();
  VNTRTagManager::updateReachabilityFlags(VNTRReachability::kReachable);
  const auto answered =
      delegate.wait(VNTRStatistic::eventResultProcessed, deadlineFor(o.events, floorSeconds));
  const int64_t left = queuedRequests();
  const auto drained = SteadyClock::now();
  const auto after = server.stats();

  const double drain = secondsBetween(start, drained);
  const auto cycles = delegate.cycles();
  const int64_t batches = after.batches - before.batches;
  json out = {{"mode", "backlog"},
              {"queued", queued},
              {"threads", o.threads},
              {"batch_interval_ms", o.batchIntervalMs},
              {"drain_s", round3(drain)},
              {"floor_s", round3(floorSeconds)},
              {"over_floor_pct", round3((drain / floorSeconds - 1.0) * 100.0)},
              {"batches", batches},
              // What each batch adds to the pause: its round trip and the handling of its reply.
              {"cycle_overhead_ms",
               batches > 0 ? round3((drain - static_cast<double>(batches - 1) * interval) * 1000.0 /
                                    static_cast<double>(batches))
                           : 0.0},
              {"round_trip_ms", round3(cycles.roundTripMs)},
              {"reply_to_next_send_ms", round3(cycles.gapMs)},
              // Beside the drain against its floor: what the library itself adds to each cycle.
              {"library_cycle", libraryCycleFigures(cyclesBefore)},
              {"connections_opened_in_drain", connectionsOpened() - connectionsBefore},
              {"connections_total", connectionsOpened()},
              {"still_queued", left}};
  out.update(deliveryFigures(server, o.events, 1));
  out["stored_per_s"] =
      std::lround(static_cast<double>(o.events) / secondsBetween(firing.start, *stored));
  ok = answered && left == 0 && out["exactly_once"].get<bool>();
  return out;
}

// N requests queued offline (the intake burst held in memory while the store catches up), then
// a few batches sent from the large queue.
json runQueued(const Options& o, SandboxHandle& server, BenchDelegate& delegate, bool& ok) {
  delegate.watch(VNTRStatistic::eventCreated, o.events);
  Firing firing = fire(o.events, o.threads, o.pace,
                       [&] { return delegate.total(VNTRStatistic::eventCreated); });
  const auto stored = delegate.wait(VNTRStatistic::eventCreated, deadlineFor(o.events));
  const int64_t storeCpu = threadCpuNanos("VNTRStore");
  const int64_t afterIntake = peakRssKiB();
  const int64_t queued = queuedRequests();
  json out = {{"mode", "queued"}, {"events", o.events}, {"threads", o.threads}};
  out.update(callFigures(firing));
  if (stored) {
    const double s = secondsBetween(firing.start, *stored);
    out["stored_s"] = round3(s);
    out["stored_per_s"] = std::lround(static_cast<double>(o.events) / s);
    out["store_thread_cpu_s"] = round3(static_cast<double>(storeCpu) / 1e9);
    out["stored_per_store_cpu_s"] = std::lround(
        static_cast<double>(o.events) * 1e9 / static_cast<double>(std::max<int64_t>(storeCpu, 1)));
  }
  out["queued"] = queued;
  out["rss_anon_stored_kib"] = anonRssKiB();  // the burst stored: what is handed back
  out["peak_rss_intake_kib"] = afterIntake;
  const int64_t toSend = std::min(o.drainBatches * kEventsPerBatch, queued);
  bool sent = true;
  if (toSend > 0) {
    delegate.watch(VNTRStatistic::eventResultProcessed, toSend);
    VNTRTagManager::updateReachabilityFlags(VNTRReachability::kReachable);
    sent = delegate.wait(VNTRStatistic::eventResultProcessed, deadlineFor(toSend)).has_value();
  }
  out["sent_after_intake"] = delegate.total(VNTRStatistic::eventResultProcessed);
  out["batches"] = server.stats().batches;
  ok = stored && queued == o.events && sent;
  return out;
}

// The figures' targets on a 2-core machine, each true or false (absent when not measured).
json targetsMet(const Options& o, const json& out) {
  json met = json::object();
  const auto has = [&](const char* key) { return out.contains(key) && out[key].is_number(); };
  const double peakMiB = out.value("peak_rss_mib", 0.0);
  switch (o.mode) {
    case Options::Mode::delivery:
      if (has("fire_p99_us")) {
        met[o.threads == 1 ? "fire_p99_under_10us" : "fire_p99_under_20us"] =
            out["fire_p99_us"].get<double>() < (o.threads == 1 ? 10.0 : 20.0);
      }
      if (has("stored_per_s")) met["stored_50k_per_s"] = out["stored_per_s"].get<double>() >= 50000;
      met["exactly_once"] = out.value("exactly_once", false);
      met["peak_rss_under_12mib"] = peakMiB < 12.0;
      break;
    case Options::Mode::backlog:
      if (has("over_floor_pct")) {
        met["drain_within_5pct_of_floor"] = out["over_floor_pct"].get<double>() <= 5.0;
      }
      // The drain may reuse the warm-up's connection (none opened) or open one.
      if (has("connections_opened_in_drain")) {
        met["one_connection"] = out["connections_opened_in_drain"].get<int64_t>() <= 1;
      }
      met["exactly_once"] = out.value("exactly_once", false);
      break;
    case Options::Mode::queued:
      met["peak_rss_under_32mib"] = peakMiB < 32.0;
      break;
  }
  return met;
}

}  // namespace
}  // namespace vntr::bench

int main(int argc, char** argv) {
  using namespace vntr;
  using namespace vntr::bench;
  const auto options = parse(argc, argv);
  if (!options) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  // First, while this process has no other thread: the server's child process is forked here.
  auto server = SandboxHandle::start(options->batchIntervalMs);
  if (!server) return kExitFailed;

  cli::TemporaryDirectory data("vntr-bench");
  if (data.path().empty()) {
    std::fprintf(stderr, "vntr-bench: cannot create a temporary directory\n");
    return kExitFailed;
  }
  auto delegate = std::make_shared<BenchDelegate>();
  const bool online = options->mode != Options::Mode::queued;
  if (!configureLibrary(data.path(), online ? VNTRReachability::kReachable : 0, server->tagsURL(),
                        delegate)) {
    return kExitFailed;
  }

  std::optional<MemorySampler> memory;
  if (options->sampleMemory) memory.emplace();
  bool ok = false;
  json out;
  switch (options->mode) {
    case Options::Mode::delivery:
      out = runDelivery(*options, *server, *delegate, ok);
      break;
    case Options::Mode::backlog:
      out = runBacklog(*options, *server, *delegate, ok);
      break;
    case Options::Mode::queued:
      out = runQueued(*options, *server, *delegate, ok);
      break;
  }
  out["server"] = "own process";
  out["peak_rss_kib"] = peakRssKiB();
  out["peak_rss_mib"] = round3(static_cast<double>(peakRssKiB()) / 1024.0);
  if (memory) {
    out["peak_rss_anon_kib"] = memory->peakAnonKiB();
    out["peak_rss_file_kib"] = memory->peakFileKiB();
  }
  if (options->pace > 0) out["paced"] = options->pace;
  out["targets"] = targetsMet(*options, out);
  out["ok"] = ok;
  std::printf("%s\n", out.dump().c_str());
  std::fflush(stdout);
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
  server.reset();
  return ok ? kExitOk : kExitFailed;
}
