#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "SandboxServer.hpp"
#include "fault/FaultSupport.hpp"
#include "store/EventDataManager.hpp"
#include "support/LiveRuntime.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 8;
constexpr int kSteps = 50;  // consent and server faults change this often during the run

// The consent strings a consent component writes: purpose 1 and vendor 24 granted or not.
std::string vendors(bool granted) { return std::string(23, '1') + (granted ? "1" : "0") + "11"; }

// Walks through the ways consent can be given, refused and left to the remote check; every
// change makes the library forget and decide again while calls keep arriving.
void changeConsent(UserDefaults& defaults, int step) {
  switch (step % 4) {
    case 0:
      defaults.setString("IABConsent_SubjectToGDPR", "0");
      break;
    case 1:
      defaults.setString("IABConsent_SubjectToGDPR", "1");
      defaults.setString("IABConsent_ParsedPurposeConsents", "11111");
      defaults.setString("IABConsent_ParsedVendorConsents", vendors(true));
      break;
    case 2:
      defaults.setString("IABConsent_ParsedVendorConsents", vendors(false));
      break;
    case 3:
      // Too little to decide from: the remote check (the sandbox says no consent is needed).
      defaults.removeObjectForKey("IABConsent_ParsedVendorConsents");
      break;
  }
}

sandbox::Faults faultsFor(int step) {
  sandbox::Faults faults;
  switch (step % 7) {
    case 1:
      faults.dropShare = 0.3;
      break;
    case 2:
      faults.errorEntries = true;
      break;
    case 3:
      faults.statusCode = 500;
      break;
    case 4:
      faults.malformedBody = true;
      break;
    case 5:
      faults.emptyBody = true;
      break;
    case 6:
      faults.dropShare = 0.5;
      faults.errorEntries = true;
      break;
    default:
      break;
  }
  return faults;
}

// Eight threads fire while consent changes and the server drops answers, answers with errors
// (which remove their requests through the nil-result path), with status 500, with bodies that
// do not parse and with none at all. Nothing may crash or race, and every created request must
// be accounted for: delivered (by the delegate's count and by the server's) or still queued.
TEST(Stress, everyCreatedRequestIsDeliveredOrStillQueued) {
  const auto started = std::chrono::steady_clock::now();
  const int calls = 10'000;
  TempDir dir;
  sandbox::SandboxConfig config;
  config.batchIntervalMs = 100;
  sandbox::SandboxServer server(config);
  ASSERT_TRUE(server.start());
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setServerURL(server.tagsURL());
  preferences.setRequestTimeout(10);
  InstalledCounter counts;
  QuietLog quiet;  // thousands of expected warnings and errors
  LiveRuntimeOptions options;
  options.consentCheckURL = server.consentURL();
  LiveRuntime live(dir.path(), options);
  auto& runtime = live.runtime();

  // Consent changes kSteps times while the calls arrive: a caller that gets ahead of the
  // changes waits for the next one, so they are spread over the whole run.
  const int64_t callsPerStep = int64_t{kThreads} * calls / kSteps;
  std::atomic<int64_t> fired{0};
  std::atomic<int> step{0};
  std::thread chaos([&] {
    for (int next = 1; next < kSteps; ++next) {
      waitUntil([&] { return fired.load() >= next * callsPerStep; }, 60s);
      changeConsent(live.defaults(), next);
      server.setFaults(faultsFor(next));
      step.store(next);
    }
  });
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < calls; ++i) {
        const int64_t n = fired.fetch_add(1);
        if (n >= (step.load() + 1) * callsPerStep) {
          waitUntil([&] { return n < (step.load() + 1) * callsPerStep; }, 60s);
        }
        live.fireEvents({"stress", "load"}, "stress", {{"thread", t}, {"call", i}});
        // A reachable report asks for a batch at once; otherwise the timer paces them.
        if (i % 500 == 0) runtime.reachability().updateFlags(VNTRReachability::kReachable);
      }
    });
  }
  for (auto& caller : callers) caller.join();
  chaos.join();
  const auto firedFor = std::chrono::steady_clock::now() - started;

  // The store works through the calls' backlog while batches go on; then every kind of answer
  // once more, two batches each.
  runtime.store().performAndWait([] {});
  for (int next = 0; next < 14; ++next) {
    server.setFaults(faultsFor(next));
    const int64_t target = server.stats().batches + 2;
    ASSERT_TRUE(waitUntil(
        [&] {
          runtime.reachability().updateFlags(VNTRReachability::kReachable);
          return server.stats().batches >= target;
        },
        30s));
  }

  // No batch may start from now on; the one in flight (if any) ends by answer or timeout. A
  // batch cycle that already took the transport runs on the main queue: let it get that far.
  runtime.requester().setHttpClient(nullptr);
  runtime.mainQueue().performAndWait([] {});
  ASSERT_TRUE(waitUntil([&] { return !runtime.requester().isRequesting.load(); }, 30s));

  // Creation and delivery are both reported on the store queue: counted there, they and the
  // queue's length are one consistent snapshot.
  int64_t created = 0;
  int64_t delivered = 0;
  int64_t queued = 0;
  auto& store = runtime.store();
  store.performAndWait([&] {
    queued = store.count();
    created = counts[VNTRStatistic::eventCreated];
    delivered = counts[VNTRStatistic::eventResultProcessed];
  });
  const sandbox::Stats stats = server.stats();
  EXPECT_EQ(created, delivered + queued);
  EXPECT_EQ(delivered, stats.answered);
  EXPECT_LE(stats.events, created);
  // The run did what it is for: most calls got in, batches went out and came back every way.
  EXPECT_GT(created, int64_t{kThreads} * calls / 4);
  EXPECT_LT(created, int64_t{kThreads} * calls);  // refused consent rejected some
  EXPECT_GT(delivered, 0);
  EXPECT_GT(counts[VNTRStatistic::responseUnparsable], 0);
  EXPECT_GT(counts[VNTRStatistic::responseEmpty], 0);
  EXPECT_GT(stats.duplicates, 0);  // dropped answers made requests go again
  std::cout << "[ figures  ] " << kThreads << " x " << calls << " calls in "
            << std::chrono::duration<double>(firedFor).count() << " s, "
            << std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count()
            << " s in all: " << created << " created, " << delivered << " delivered, " << queued
            << " queued, " << stats.batches << " batches\n";
}

}  // namespace
}  // namespace vntr::test
