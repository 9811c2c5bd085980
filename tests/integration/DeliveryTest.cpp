// The whole pipeline over real HTTP: intake, SQLite queue on disk, batch timer, curl transport,
// the sandbox tag server on 127.0.0.1, answers back into the store. Each test checks that every
// accepted call is delivered exactly once, under a different kind of trouble.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "SandboxServer.hpp"
#include "model/VNTREventFilter.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using sandbox::Faults;
using sandbox::SandboxConfig;
using sandbox::SandboxServer;
using Stat = VNTRStatistic;

std::multiset<int64_t> receivedSeqs(const SandboxServer& server) {
  std::multiset<int64_t> seqs;
  for (const json& request : server.events()) seqs.insert(sequenceOf(request).value_or(-1));
  return seqs;
}

std::multiset<int64_t> range(int64_t from, int64_t to) {
  std::multiset<int64_t> out;
  for (int64_t i = from; i < to; ++i) out.insert(i);
  return out;
}

// The event names of each batch the server recorded, in arrival order (getEvents left out).
std::vector<std::vector<std::string>> eventsPerBatch(const SandboxServer& server) {
  std::vector<std::vector<std::string>> batches;
  for (const json& batch : server.batches()) {
    auto& names = batches.emplace_back();
    for (const json& member : batch.at("members")) {
      for (const json& name : member.value("events", json::array())) names.push_back(name);
    }
  }
  return batches;
}

class Delivery : public ::testing::Test {
 protected:
  void serve(SandboxServer& server) {
    ASSERT_TRUE(server.start());
    VNTRPreferences::sharedPreferences().setServerURL(server.tagsURL());
  }
  bool allAnswered(LiveRuntime& app, int64_t events) {
    return counts[Stat::eventResultProcessed] == events && app.storedCount() == 0;
  }
  TempDir dir;
  InstalledCounter counts;
};

// Three threads fire while the server drops a third of the answers: every request still arrives,
// the dropped ones again, and the counters agree with what the server saw.
TEST_F(Delivery, everyEventArrivesExactlyOnceDespiteDroppedAnswers) {
  SandboxConfig config = sandboxConfig(100);
  config.faults.dropShare = 0.3;
  SandboxServer server(config);
  serve(server);
  LiveRuntime app(dir.path());
  constexpr int kThreads = 3, kPerThread = 100, kEvents = kThreads * kPerThread;
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&app, t] {
      for (int i = 0; i < kPerThread; ++i) {
        app.fireEvents({"open"}, "shop", {{"seq", t * kPerThread + i}});
      }
    });
  }
  for (auto& caller : callers) caller.join();
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, kEvents); }, 30s))
      << "answered " << counts[Stat::eventResultProcessed] << " of " << kEvents;

  const auto stats = server.stats();
  EXPECT_EQ(receivedSeqs(server), range(0, kEvents));
  EXPECT_GT(stats.duplicates, 0);
  EXPECT_EQ(stats.getEvents, stats.batches) << "each batch carries one get-events request";
  for (const auto& names : eventsPerBatch(server)) EXPECT_LE(names.size(), 80u);
  EXPECT_EQ(counts[Stat::eventCreated], kEvents);
  EXPECT_EQ(counts[Stat::eventsSent], stats.events + stats.duplicates);
  for (const Stat s : {Stat::batchRequestSent, Stat::responseReceived, Stat::responseDataReceived,
                       Stat::responseParsed}) {
    EXPECT_EQ(counts[s], stats.batches) << s.description();
  }
  for (const Stat s : {Stat::requestFailed, Stat::responseEmpty, Stat::responseUnparsable}) {
    EXPECT_EQ(counts[s], 0) << s.description();
  }
}

// Nothing listens while the first launch runs: it tries, keeps everything, and the next launch
// over the same directory delivers it all once.
TEST_F(Delivery, aQueueLeftWhileTheServerWasDownGoesOutAtTheNextLaunch) {
  SandboxServer server(sandboxConfig(100));
  serve(server);
  server.stop();  // the port stays known and nothing listens on it
  constexpr int kEvents = 50;
  {
    LiveRuntime first(dir.path());
    for (int i = 0; i < kEvents; ++i) first.fireEvents({"open"}, "launch1", {{"seq", i}});
    ASSERT_TRUE(waitUntil(
        [&] { return counts[Stat::eventCreated] == kEvents && counts[Stat::requestFailed] >= 2; }));
    EXPECT_EQ(first.storedCount(), kEvents);
  }
  ASSERT_TRUE(server.start());
  LiveRuntime second(dir.path());
  EXPECT_EQ(second.storedCount(), kEvents);
  second.fireEvents({"open"}, "launch2", {{"seq", kEvents}});  // starts the requester
  ASSERT_TRUE(waitUntil([&] { return allAnswered(second, kEvents + 1); }, 30s));
  EXPECT_EQ(server.stats().duplicates, 0);
  EXPECT_EQ(receivedSeqs(server), range(0, kEvents + 1));
}

// Calls made while the server's consent check says consent is needed, or while the stored
// consent refuses, never leave the process; once consent is given they go out.
TEST_F(Delivery, onlyCallsMadeWithConsentReachTheServer) {
  SandboxConfig config = sandboxConfig(100);
  config.needsConsent = true;
  SandboxServer server(config);
  serve(server);
  LiveRuntimeOptions options;
  options.notSubjectToGdpr = false;
  options.consentCheckURL = server.consentURL();
  LiveRuntime app(dir.path(), options);
  CapturingLog log;
  app.fireEvents({"open"}, "shop", {{"seq", 0}});
  ASSERT_TRUE(
      waitUntil([&] { return log.count("[Verbose] hasGdprConsent determined to be:false") == 1; }));
  EXPECT_EQ(server.stats().consentChecks, 1);
  app.fireEvents({"open"}, "shop", {{"seq", 1}});

  app.defaults().setString("IABConsent_SubjectToGDPR", "1");
  app.defaults().setString("IABConsent_ParsedPurposeConsents", "00000");
  app.defaults().setString("IABConsent_ParsedVendorConsents", std::string(23, '0') + "1");
  app.fireEvents({"open"}, "shop", {{"seq", 2}});
  EXPECT_EQ(app.storedCount(), 0);
  EXPECT_EQ(log.count("[Error] GDPR consent was not granted for this app/purpose. Please "
                      "re-initialize."),
            3u);  // the first call too: the check had not answered yet

  app.defaults().setString("IABConsent_ParsedPurposeConsents", "10000");
  app.fireEvents({"open"}, "shop", {{"seq", 3}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 1); }));
  EXPECT_EQ(receivedSeqs(server), std::multiset<int64_t>{3});
}

// From the third batch on, each leaves at least the interval the server answered after the
// answer to the one before.
TEST_F(Delivery, pacesLaterBatchesByTheIntervalTheServerAnswers) {
  SandboxServer server(sandboxConfig(1200));
  std::mutex mutex;
  std::vector<std::chrono::steady_clock::time_point> arrivals;
  server.setBatchObserver([&](const json&) {
    std::scoped_lock lock(mutex);
    arrivals.push_back(std::chrono::steady_clock::now());
  });
  serve(server);
  LiveRuntime app(dir.path());
  for (int i = 0; i < 200; ++i) app.fireEvents({"open"}, "shop", {{"seq", i}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 200); }, 30s));
  server.setBatchObserver(nullptr);
  EXPECT_DOUBLE_EQ(app.runtime().requester().batchIntervalSeconds.load(), 1.2);
  ASSERT_GE(arrivals.size(), 3u);
  for (size_t k = 2; k < arrivals.size(); ++k) EXPECT_GE(arrivals[k] - arrivals[k - 1], 1200ms);
}

// The server's qualified-event list drops other calls, and an ignoreBatch event sends the queue
// at once instead of waiting for the 60 s timer.
TEST_F(Delivery, appliesTheServersQualifiedEventsAndSendsIgnoreBatchEventsAtOnce) {
  SandboxConfig config = sandboxConfig(60000);
  config.qualifiedEvents = json::array({{{"eventName", "purchase"}, {"ignoreBatch", true}},
                                        {{"eventName", "open"}, {"ignoreBatch", false}}});
  SandboxServer server(config);
  serve(server);
  LiveRuntimeOptions options;
  options.batchIntervalMs = 60000;
  LiveRuntime app(dir.path(), options);
  EXPECT_TRUE(app.runtime().filter().admits({"other"}));  // no list yet: every name passes
  app.fireEvents({"open"}, "shop", {{"seq", 0}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 1); }));
  app.fireEvents({"other"}, "shop", {{"seq", 1}});
  app.fireEvents({"open"}, "shop", {{"seq", 2}});
  EXPECT_EQ(app.storedCount(), 1);
  app.fireEvents({"purchase"}, "shop", {{"seq", 3}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 3); }, 10s));
  const auto batches = eventsPerBatch(server);
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(batches[1], (std::vector<std::string>{"purchase", "open"}));  // newest first
}

// Consent as a consent tool changes it: given, refused, left to the remote check.
void changeConsent(UserDefaults& defaults, int step) {
  const std::string vendors = std::string(23, '1') + (step % 4 == 2 ? "0" : "1") + "11";
  switch (step % 4) {
    case 0:
      defaults.setString("IABConsent_SubjectToGDPR", "0");
      break;
    case 1:
    case 2:
      defaults.setString("IABConsent_SubjectToGDPR", "1");
      defaults.setString("IABConsent_ParsedPurposeConsents", "11111");
      defaults.setString("IABConsent_ParsedVendorConsents", vendors);
      break;
    default:
      defaults.removeObjectForKey("IABConsent_ParsedVendorConsents");
  }
}

Faults faultsFor(int step) {
  Faults faults;
  faults.dropShare = step % 7 == 1 ? 0.3 : step % 7 == 6 ? 0.5 : 0.0;
  faults.errorEntries = step % 7 == 2 || step % 7 == 6;
  faults.statusCode = step % 7 == 3 ? 500 : 200;
  faults.malformedBody = step % 7 == 4;
  faults.emptyBody = step % 7 == 5;
  return faults;
}

// Eight threads fire while consent changes and the server drops answers, answers with errors,
// status 500, bodies that do not parse and none at all. Nothing may crash or race, and every
// created request is delivered (by the delegate's count and the server's) or still queued.
TEST_F(Delivery, underStressEveryCreatedRequestIsDeliveredOrStillQueued) {
  constexpr int kThreads = 8, kCalls = 10'000, kSteps = 50;
  SandboxServer server(sandboxConfig(100));
  serve(server);
  VNTRPreferences::sharedPreferences().setRequestTimeout(10);
  QuietLog quiet;
  LiveRuntimeOptions options;
  options.consentCheckURL = server.consentURL();
  LiveRuntime live(dir.path(), options);
  auto& runtime = live.runtime();
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
