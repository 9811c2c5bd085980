// vntr demo: the whole pipeline against a sandbox tag server in this process.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "CliSupport.hpp"
#include "Commands.hpp"
#include "ProgressLine.hpp"
#include "Runtime.hpp"
#include "SandboxServer.hpp"
#include "store/EventDataManager.hpp"

namespace vntr::cli {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// Names rotate so the sandbox page shows some variety.
constexpr std::array<const char*, 4> kEventNames = {"screen_view", "tap", "add_to_cart",
                                                    "purchase"};
constexpr const char* kSiteId = "12345";

double secondsSince(Clock::time_point start, Clock::time_point end = Clock::now()) {
  return std::chrono::duration<double>(end - start).count();
}

int64_t queuedRequests() {
  auto& store = Runtime::shared().store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

// The calls of one firing thread: every `threads`-th sequence number from `first`.
void fireShare(int first, int threads, int events) {
  for (int seq = first; seq < events; seq += threads) {
    VNTRTagManager::fireEvents({kEventNames[static_cast<size_t>(seq) % kEventNames.size()]}, "demo",
                               {{"seq", seq}, {"thread", first}});
  }
}

/// What arrived at the server, checked against the sequence numbers fired.
struct Delivery {
  int64_t distinct = 0;  // distinct request ids
  int64_t repeated = 0;  // arrivals of an id seen before
  int64_t missing = 0;   // sequence numbers never seen
  int64_t doubled = 0;   // sequence numbers seen under more than one id
  bool exactlyOnce() const { return missing == 0 && doubled == 0 && repeated == 0; }
};

Delivery checkDelivery(const sandbox::SandboxServer& server, int events) {
  const auto stats = server.stats();
  Delivery d{stats.events, stats.duplicates, 0, 0};
  std::vector<int> seen(static_cast<size_t>(events), 0);
  for (const json& request : server.events()) {
    const json* seq = nullptr;
    if (auto params = request.find("params"); params != request.end() && params->is_object()) {
      if (auto data = params->find("eventData"); data != params->end() && data->is_object()) {
        if (auto s = data->find("seq"); s != data->end() && s->is_number_integer()) seq = &*s;
      }
    }
    if (seq == nullptr) continue;
    const auto n = seq->get<int64_t>();
    if (n >= 0 && n < events) ++seen[static_cast<size_t>(n)];
  }
  for (const int count : seen) {
    if (count == 0) ++d.missing;
    if (count > 1) d.doubled += count - 1;
  }
  return d;
}

void printRow(const char* label, const std::string& value) {
  std::printf("  %-24s %12s\n", label, value.c_str());
}

void printSummary(const CountingDelegate& delegate, const sandbox::SandboxServer& server,
                  const Delivery& delivery, int events, double elapsed, double firing) {
  const auto stats = server.stats();
  std::printf("\nDelegate counters\n");
  for (const auto statistic : VNTRStatistic::allValues()) {
    printRow(std::string(statistic.description()).c_str(),
             withThousands(delegate.total(statistic)));
  }
  std::printf("Sandbox server\n");
  printRow("batches received", withThousands(stats.batches));
  printRow("distinct events", withThousands(stats.events));
  printRow("repeated arrivals", withThousands(stats.duplicates));
  printRow("bytes received", withThousands(stats.bytesReceived));
  char text[64];
  std::printf("Timing\n");
  std::snprintf(text, sizeof text, "%.2f s", elapsed);
  printRow("first call to last answer", text);
  std::snprintf(text, sizeof text, "%.3f s", firing);
  printRow("all calls returned after", text);
  const double rate = events / std::max(elapsed, 1e-3);  // delivered, end to end
  if (rate >= 100) {
    printRow("events per second", withThousands(static_cast<int64_t>(rate)));
  } else {
    std::snprintf(text, sizeof text, "%.1f", rate);
    printRow("events per second", text);
  }
  std::printf("Result\n");
  if (delivery.exactlyOnce() && delivery.distinct == events) {
    std::printf("  %s %s event%s arrived exactly once\n", events == 1 ? "the" : "every one of the",
                withThousands(events).c_str(), events == 1 ? "" : "s");
  } else {
    std::printf("  NOT exactly once: %s distinct of %s, %s missing, %s under two ids, %s resent\n",
                withThousands(delivery.distinct).c_str(), withThousands(events).c_str(),
                withThousands(delivery.missing).c_str(), withThousands(delivery.doubled).c_str(),
                withThousands(delivery.repeated).c_str());
  }
}

// Points the process-wide library at `root` (site ID, data, user defaults) and at loopback
// reachability. Returns the reason when the library was already in use.
std::optional<std::string> configureLibrary(const std::filesystem::path& root) {
  if (auto error = writeSiteIdPlist(root / "bundle", kSiteId)) return error;
  if (!VNTRTagManager::setMainBundlePath((root / "bundle").string()) ||
      !VNTRTagManager::setDocumentsDirectory((root / "documents").string()) ||
      !VNTRTagManager::setUserDefaultsPath((root / "UserDefaults.json").string()) ||
      // The sandbox is on loopback: waiting for the kernel's default route would be pointless.
      !VNTRTagManager::useHostReachability(VNTRReachability::kReachable)) {
    return std::string("the library was already in use");
  }
  return std::nullopt;
}

}  // namespace

int runDemo(const DemoOptions& options) {
  TemporaryDirectory data("vntr-demo");
  if (data.path().empty()) {
    std::fprintf(stderr, "vntr demo: cannot create a temporary directory\n");
    return kExitFailed;
  }
  if (auto error = configureLibrary(data.path())) {
    std::fprintf(stderr, "vntr demo: %s\n", error->c_str());
    return kExitFailed;
  }
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setLogLevel(options.verbose ? VantrelLogLevel::verbose : VantrelLogLevel::warning);
  auto delegate = std::make_shared<CountingDelegate>();
  preferences.setTagManagerDelegate(delegate);

  sandbox::SandboxConfig config;
  config.batchIntervalMs = options.batchIntervalMs;
  sandbox::SandboxServer server(config);
  if (!server.start()) {
    std::fprintf(stderr, "vntr demo: the sandbox server could not listen on 127.0.0.1\n");
    return kExitFailed;
  }
  preferences.setServerURL(server.tagsURL());
  // Not subject to GDPR, as a consent tool would record it.
  UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");

  const int events = options.events;
  const int threads = std::min(options.threads, events);
  std::printf("vntr demo: %s events from %d thread%s to %s (batch interval %d ms)\n",
              withThousands(events).c_str(), threads, threads == 1 ? "" : "s",
              server.tagsURL().c_str(), options.batchIntervalMs);
  std::printf("sandbox page while it runs: %s/\n", server.baseURL().c_str());
  std::fflush(stdout);

  const auto start = Clock::now();
  std::atomic<int> threadsLeft{threads};
  std::atomic<int64_t> firingNanos{0};
  std::vector<std::thread> firing;
  firing.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) {
    firing.emplace_back([&, t] {
      fireShare(t, threads, events);
      if (threadsLeft.fetch_sub(1) == 1) {
        firingNanos.store(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
      }
    });
  }

  // Bounded: a minute plus a second per thousand events, which a healthy run never comes near.
  const auto deadline = start + std::chrono::seconds(60) + std::chrono::milliseconds(events);
  ProgressLine progress(::isatty(STDERR_FILENO) == 1, events);
  bool complete = false;
  while (true) {
    const int64_t stored = delegate->total(VNTRStatistic::eventCreated);
    const int64_t delivered = server.stats().events;
    progress.update(stored, delivered, secondsSince(start));
    if (threadsLeft.load() == 0 && stored >= events && delivered >= events &&
        queuedRequests() == 0) {
      complete = true;
      break;
    }
    if (Clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // screen refresh
  }
  const double elapsed = secondsSince(start);
  progress.finish(delegate->total(VNTRStatistic::eventCreated), server.stats().events, elapsed);
  for (auto& thread : firing) thread.join();

  const Delivery delivery = checkDelivery(server, events);
  printSummary(*delegate, server, delivery, events, elapsed,
               static_cast<double>(firingNanos.load()) / 1e9);
  if (!complete) {
    std::printf("  timed out after %.0f s with %s requests still queued\n", elapsed,
                withThousands(queuedRequests()).c_str());
  }
  std::fflush(stdout);
  server.stop();
  preferences.setTagManagerDelegate(nullptr);
  return complete && delivery.exactlyOnce() && delivery.distinct == events ? kExitOk : kExitFailed;
}

}  // namespace vntr::cli
