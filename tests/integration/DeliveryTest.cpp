// The whole pipeline over real HTTP under stress: intake, SQLite queue on disk, batch timer, curl
// transport, the sandbox tag server on 127.0.0.1, answers back into the store.
#include <gtest/gtest.h>

#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using sandbox::Faults;
using Stat = VNTRStatistic;

// Consent as a consent tool changes it: given, refused, left to the remote check.
void changeConsent(UserDefaults& defaults, int step) {
  if (step % 4 == 0) return defaults.setString("IABConsent_SubjectToGDPR", "0");
  if (step % 4 == 3) return defaults.removeObjectForKey("IABConsent_ParsedVendorConsents");
  defaults.setString("IABConsent_SubjectToGDPR", "1");
  defaults.setString("IABConsent_ParsedPurposeConsents", "11111");
  defaults.setString("IABConsent_ParsedVendorConsents",
                     std::string(23, '1') + (step % 4 == 2 ? "0" : "1") + "11");
}

Faults faultsFor(int step) {
  const int k = step % 7;
  return {.statusCode = k == 3 ? 500 : 200,
          .dropShare = k == 1 ? 0.3 : (k == 6 ? 0.5 : 0.0),
          .errorEntries = k == 2 || k == 6,
          .malformedBody = k == 4,
          .emptyBody = k == 5};
}

// Eight threads fire while consent changes and the server drops answers, answers with errors,
// status 500, bodies that do not parse and none at all. Nothing may crash or race, and every
// created request is delivered (by the delegate's count and the server's) or still queued.
TEST(Delivery, underStressEveryCreatedRequestIsDeliveredOrStillQueued) {
  constexpr int kThreads = 8, kCalls = 10'000, kSteps = 50;
  sandbox::SandboxServer server(sandboxConfig(100));
  ASSERT_TRUE(server.start());
  VNTRPreferences::sharedPreferences().setServerURL(server.tagsURL());
  VNTRPreferences::sharedPreferences().setRequestTimeout(10);
  CapturingLog quiet(false);
  TempDir dir;
  LiveRuntime live(dir.path(), {.consentCheckURL = server.consentURL()});
  auto& runtime = live.runtime();
  const RecordingDelegate& counts = *live.delegate;
  const int64_t callsPerStep = int64_t{kThreads} * kCalls / kSteps;
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
      for (int i = 0; i < kCalls; ++i) {
        const int64_t n = fired.fetch_add(1);  // callers ahead of the changes wait for them
        waitUntil([&] { return n < (step.load() + 1) * callsPerStep; }, 60s);
        live.fireEvents({"stress", "load"}, "stress", {{"thread", t}, {"call", i}});
        if (i % 500 == 0) runtime.reachability().updateFlags(VNTRReachability::kReachable);
      }
    });
  }
  for (auto& caller : callers) caller.join();
  chaos.join();
  for (int next = 0; next < 14; ++next) {  // every kind of answer once more, two batches each
    server.setFaults(faultsFor(next));
    const int64_t target = server.stats().batches + 2;
    ASSERT_TRUE(waitUntil(
        [&] {
          runtime.reachability().updateFlags(VNTRReachability::kReachable);
          return server.stats().batches >= target;
        },
        30s));
  }
  // No batch may start from now on; the one in flight (if any) ends by answer or timeout.
  runtime.requester().setHttpClient(nullptr);
  runtime.mainQueue().performAndWait([] {});
  ASSERT_TRUE(waitUntil([&] { return !runtime.requester().isRequesting.load(); }, 30s));
  // Creation and delivery are both reported on the store queue: read there, they and the
  // queue's length are one consistent snapshot.
  int64_t created = 0, delivered = 0, queued = 0;
  runtime.store().performAndWait([&] {
    queued = runtime.store().count();
    created = counts[Stat::eventCreated];
    delivered = counts[Stat::eventResultProcessed];
  });
  const sandbox::Stats stats = server.stats();
  EXPECT_EQ(created, delivered + queued);
  EXPECT_EQ(delivered, stats.answered);
  EXPECT_LE(stats.events, created);
  EXPECT_GT(created, int64_t{kThreads} * kCalls / 4);
  EXPECT_LT(created, int64_t{kThreads} * kCalls);  // refused consent rejected some
  EXPECT_GT(counts[Stat::responseUnparsable], 0);
  EXPECT_GT(counts[Stat::responseEmpty], 0);
  EXPECT_GT(stats.duplicates, 0);
  VNTRPreferences::sharedPreferences().setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
}

}  // namespace
}  // namespace vntr::test
