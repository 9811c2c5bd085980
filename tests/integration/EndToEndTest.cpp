// The whole pipeline over real HTTP: intake, SQLite queue on disk, batch timer, curl transport,
// the sandbox tag server on 127.0.0.1, answers back into the store.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "SandboxServer.hpp"
#include "model/VNTREventFilter.hpp"
#include "support/Harness.hpp"
#include "support/LiveRuntime.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRRequester.hpp"

extern char** environ;

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using sandbox::SandboxConfig;
using sandbox::SandboxServer;
using SteadyTime = std::chrono::steady_clock::time_point;

class EndToEnd : public ::testing::Test {
 protected:
  void SetUp() override { VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate); }
  void TearDown() override {
    VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
    VNTRPreferences::sharedPreferences().setServerURL(VNTRPreferences::kDefaultServerURL);
  }

  // Starts `server` and points the library at it.
  static void serve(SandboxServer& server) {
    ASSERT_TRUE(server.start());
    VNTRPreferences::sharedPreferences().setServerURL(server.tagsURL());
  }

  int64_t total(VNTRStatistic statistic) const { return delegate->total(statistic); }

  // Every event fired has been answered and removed from the queue.
  bool allAnswered(LiveRuntime& app, int64_t events) {
    return total(VNTRStatistic::eventResultProcessed) == events && app.storedCount() == 0;
  }

  TempDir dir;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

SandboxConfig quickServer() {
  SandboxConfig config;
  config.batchIntervalMs = 100;
  return config;
}

// The "seq" members of the event data of every distinct request the server received.
std::multiset<int64_t> receivedSequenceNumbers(const SandboxServer& server) {
  std::multiset<int64_t> seqs;
  for (const json& request : server.events()) {
    seqs.insert(request.at("params").at("eventData").at("seq").get<int64_t>());
  }
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
      if (member.value("method", "") != "syncEvent") continue;
      for (const json& name : member.value("events", json::array())) names.push_back(name);
    }
  }
  return batches;
}

TEST_F(EndToEnd, deliversEveryEventExactlyOnceWithTheDocumentedCounters) {
  SandboxServer server(quickServer());
  serve(server);
  LiveRuntime app(dir.path());
  constexpr int kThreads = 3;
  constexpr int kPerThread = 100;
  constexpr int kEvents = kThreads * kPerThread;

  std::vector<std::thread> callers;
  callers.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&app, t] {
      for (int i = 0; i < kPerThread; ++i) {
        app.fireEvents({"open"}, "shop", {{"seq", t * kPerThread + i}});
      }
    });
  }
  for (auto& caller : callers) caller.join();
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, kEvents); }, 30s))
      << "answered " << total(VNTRStatistic::eventResultProcessed) << " of " << kEvents;

  const auto stats = server.stats();
  EXPECT_EQ(stats.events, kEvents);
  EXPECT_EQ(stats.duplicates, 0);
  EXPECT_EQ(receivedSequenceNumbers(server), range(0, kEvents));
  EXPECT_EQ(stats.getEvents, stats.batches) << "each batch carries one get-events request";
  for (const auto& names : eventsPerBatch(server)) {
    EXPECT_GE(names.size(), 1u);
    EXPECT_LE(names.size(), 80u);
  }

  EXPECT_EQ(total(VNTRStatistic::eventCreated), kEvents);
  EXPECT_EQ(total(VNTRStatistic::eventsSent), kEvents);
  EXPECT_EQ(total(VNTRStatistic::eventResultProcessed), kEvents);
  EXPECT_EQ(total(VNTRStatistic::batchRequestSent), stats.batches);
  EXPECT_EQ(total(VNTRStatistic::responseReceived), stats.batches);
  EXPECT_EQ(total(VNTRStatistic::responseDataReceived), stats.batches);
  EXPECT_EQ(total(VNTRStatistic::responseParsed), stats.batches);
  EXPECT_EQ(total(VNTRStatistic::requestFailed), 0);
  EXPECT_EQ(total(VNTRStatistic::responseEmpty), 0);
  EXPECT_EQ(total(VNTRStatistic::responseUnparsable), 0);
}

TEST_F(EndToEnd, resendsRequestsWhoseAnswersWereDroppedUntilNoneIsLost) {
  SandboxConfig config = quickServer();
  config.faults.dropShare = 0.3;
  SandboxServer server(config);
  serve(server);
  LiveRuntime app(dir.path());
  constexpr int kEvents = 200;

  for (int i = 0; i < kEvents; ++i) app.fireEvents({"open"}, "shop", {{"seq", i}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, kEvents); }, 30s))
      << "answered " << total(VNTRStatistic::eventResultProcessed) << " of " << kEvents;

  const auto stats = server.stats();
  EXPECT_EQ(stats.events, kEvents);
  EXPECT_EQ(receivedSequenceNumbers(server), range(0, kEvents));
  EXPECT_GT(stats.duplicates, 0) << "some answers were dropped, so some requests came again";
  // Every request the client sent arrived, and every arrival was a send.
  EXPECT_EQ(total(VNTRStatistic::eventsSent), stats.events + stats.duplicates);
  EXPECT_EQ(total(VNTRStatistic::batchRequestSent), stats.batches);
  EXPECT_EQ(total(VNTRStatistic::eventCreated), kEvents);
  EXPECT_EQ(total(VNTRStatistic::eventResultProcessed), kEvents);
}

TEST_F(EndToEnd, keepsEventsQueuedWhileTheServerIsDownAndDeliversThemAtTheNextLaunch) {
  SandboxServer server(quickServer());
  serve(server);
  server.stop();  // the port stays known and nothing listens on it
  constexpr int kEvents = 50;
  {
    LiveRuntime firstLaunch(dir.path());
    for (int i = 0; i < kEvents; ++i) firstLaunch.fireEvents({"open"}, "launch1", {{"seq", i}});
    ASSERT_TRUE(waitUntil([&] {
      return total(VNTRStatistic::eventCreated) == kEvents &&
             total(VNTRStatistic::requestFailed) >= 2;  // it tried, and tried again
    }));
    EXPECT_EQ(firstLaunch.storedCount(), kEvents);
    EXPECT_EQ(total(VNTRStatistic::eventResultProcessed), 0);
  }

  ASSERT_TRUE(server.start());
  LiveRuntime secondLaunch(dir.path());
  EXPECT_EQ(secondLaunch.storedCount(), kEvents);
  // The queue goes out once the requester runs, which the app's next event starts.
  secondLaunch.fireEvents({"open"}, "launch2", {{"seq", kEvents}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(secondLaunch, kEvents + 1); }, 30s));
  EXPECT_EQ(server.stats().events, kEvents + 1);
  EXPECT_EQ(server.stats().duplicates, 0);
  EXPECT_EQ(receivedSequenceNumbers(server), range(0, kEvents + 1));
}

#ifdef VNTR_E2E_LAUNCH
TEST_F(EndToEnd, aQueueLeftByAKilledProcessIsDeliveredByTheNextOne) {
  SandboxServer server(quickServer());
  serve(server);
  server.stop();
  constexpr int kEvents = 40;

  const std::string program = VNTR_E2E_LAUNCH;
  const std::string root = dir.path().string();
  const std::string url = server.tagsURL();
  const std::string count = std::to_string(kEvents);
  std::vector<char*> argv = {const_cast<char*>(program.c_str()), const_cast<char*>(root.c_str()),
                             const_cast<char*>(url.c_str()), const_cast<char*>(count.c_str()),
                             nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ), 0);
  int status = 0;
  // Bounded by the launch's own 20 s limit on waiting for its events to be saved.
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
      << "the first launch ended with status " << status << " instead of being killed";

  ASSERT_TRUE(server.start());
  LiveRuntime secondLaunch(dir.path());
  EXPECT_EQ(secondLaunch.storedCount(), kEvents);
  secondLaunch.fireEvents({"open"}, "launch2", {{"seq", kEvents}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(secondLaunch, kEvents + 1); }, 30s));
  EXPECT_EQ(server.stats().events, kEvents + 1);
  EXPECT_EQ(server.stats().duplicates, 0);
  EXPECT_EQ(receivedSequenceNumbers(server), range(0, kEvents + 1));
}
#endif

TEST_F(EndToEnd, storesAndSendsNothingWithoutASiteID) {
  SandboxServer server(quickServer());
  serve(server);
  LiveRuntimeOptions options;
  options.siteId = false;
  LiveRuntime app(dir.path(), options);
  CapturingLog log;

  for (int i = 0; i < 3; ++i) app.fireEvents({"open"}, "shop", {{"seq", i}});

  EXPECT_EQ(app.storedCount(), 0);
  EXPECT_EQ(log.count("[Error] The Site ID for the VNTR Tag Manager has not been set.  Please see "
                      "previous errors for the reasons this might be happening."),
            3u);
  EXPECT_EQ(total(VNTRStatistic::eventCreated), 0);
  // An empty queue has nothing a later batch could send.
  EXPECT_EQ(server.stats().batches, 0);
}

TEST_F(EndToEnd, storesAndSendsNothingWhileConsentIsDeniedAndDeliversOnceItIsGranted) {
  SandboxServer server(quickServer());
  serve(server);
  LiveRuntimeOptions options;
  options.notSubjectToGdpr = false;
  LiveRuntime app(dir.path(), options);
  app.defaults().setString("IABConsent_SubjectToGDPR", "1");
  app.defaults().setString("IABConsent_ParsedPurposeConsents", "00000");
  app.defaults().setString("IABConsent_ParsedVendorConsents", std::string(23, '0') + "1");
  CapturingLog log;

  for (int i = 0; i < 5; ++i) app.fireEvents({"open"}, "shop", {{"seq", i}});
  EXPECT_EQ(app.storedCount(), 0);
  EXPECT_EQ(log.count("[Error] GDPR consent was not granted for this app/purpose. Please "
                      "re-initialize."),
            5u);

  // The consent tool records the user's yes; the library decides again at once.
  app.defaults().setString("IABConsent_ParsedPurposeConsents", "10000");
  app.fireEvents({"open"}, "shop", {{"seq", 100}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 1); }));
  // Only the call made with consent ever reached the server.
  EXPECT_EQ(receivedSequenceNumbers(server), std::multiset<int64_t>{100});
  EXPECT_EQ(total(VNTRStatistic::eventCreated), 1);
}

TEST_F(EndToEnd, followsTheServersConsentCheckWhenNoConsentIsStored) {
  SandboxConfig config = quickServer();
  config.needsConsent = true;
  SandboxServer server(config);
  serve(server);
  LiveRuntimeOptions options;
  options.notSubjectToGdpr = false;
  options.consentCheckURL = server.consentURL();
  LiveRuntime app(dir.path(), options);
  CapturingLog log;

  // The first call creates the tag manager, which asks the server; until it answers, and after
  // an answer that needs consent, every call is refused.
  app.fireEvents({"open"}, "shop", {{"seq", 0}});
  ASSERT_TRUE(
      waitUntil([&] { return log.count("[Verbose] hasGdprConsent determined to be:false") == 1; }));
  EXPECT_EQ(server.stats().consentChecks, 1);
  app.fireEvents({"open"}, "shop", {{"seq", 1}});
  EXPECT_EQ(app.storedCount(), 0);

  // Consent no longer needed; a change of a consent key makes the library ask again.
  server.setNeedsConsent(false);
  app.defaults().setString("IABConsent_SubjectToGDPR", "1");
  ASSERT_TRUE(
      waitUntil([&] { return log.count("[Verbose] hasGdprConsent determined to be:true") == 1; }));
  EXPECT_EQ(server.stats().consentChecks, 2);
  app.fireEvents({"open"}, "shop", {{"seq", 2}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 1); }));
  EXPECT_EQ(receivedSequenceNumbers(server), std::multiset<int64_t>{2});
}

// Arrival times of the batches at the server, on the steady clock.
class BatchClock {
 public:
  explicit BatchClock(SandboxServer& server) {
    server.setBatchObserver([this](const json&) {
      std::scoped_lock lock(mutex_);
      arrivals_.push_back(std::chrono::steady_clock::now());
    });
  }
  std::vector<SteadyTime> arrivals() const {
    std::scoped_lock lock(mutex_);
    return arrivals_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<SteadyTime> arrivals_;
};

TEST_F(EndToEnd, pacesLaterBatchesByTheIntervalTheServerAnswers) {
  SandboxConfig config = quickServer();
  config.batchIntervalMs = 1200;
  SandboxServer server(config);
  BatchClock clock(server);
  serve(server);
  LiveRuntime app(dir.path());  // paced at 100 ms until the server says otherwise
  constexpr int kEvents = 200;  // three batches at least

  for (int i = 0; i < kEvents; ++i) app.fireEvents({"open"}, "shop", {{"seq", i}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, kEvents); }, 30s));
  server.setBatchObserver(nullptr);

  EXPECT_DOUBLE_EQ(app.runtime().requester().batchIntervalSeconds.load(), 1.2);
  // The first answer's interval applies from the timer after next: from the third batch on,
  // each batch leaves at least 1.2 s after the answer to the one before.
  const auto arrivals = clock.arrivals();
  ASSERT_GE(arrivals.size(), 3u);
  for (size_t k = 2; k < arrivals.size(); ++k) {
    EXPECT_GE(arrivals[k] - arrivals[k - 1], 1200ms) << "between batches " << k << " and " << k + 1;
  }
}

TEST_F(EndToEnd, appliesTheServersQualifiedEventsAndSendsIgnoreBatchEventsAtOnce) {
  SandboxConfig config = quickServer();
  config.batchIntervalMs = 60000;
  config.qualifiedEvents = json::array({{{"eventName", "purchase"}, {"ignoreBatch", true}},
                                        {{"eventName", "open"}, {"ignoreBatch", false}}});
  SandboxServer server(config);
  serve(server);
  LiveRuntimeOptions options;
  options.batchIntervalMs = 60000;  // the first batch goes after 100 ms, every later one after 60 s
  LiveRuntime app(dir.path(), options);
  CapturingLog log;

  // Before the server has sent a list, every name passes.
  EXPECT_TRUE(app.runtime().filter().admits({"other"}));
  app.fireEvents({"open"}, "shop", {{"seq", 0}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 1); }));

  app.fireEvents({"other"}, "shop", {{"seq", 1}});
  EXPECT_EQ(log.count("[Verbose] No qualified events found.  Ignoring event"), 1u);
  EXPECT_EQ(app.storedCount(), 0);

  // A qualified event waits for the 60 s timer armed after the last answer ...
  app.fireEvents({"open"}, "shop", {{"seq", 2}});
  EXPECT_EQ(app.storedCount(), 1);
  // ... until an ignoreBatch event sends the queue at once.
  app.fireEvents({"purchase"}, "shop", {{"seq", 3}});
  ASSERT_TRUE(waitUntil([&] { return allAnswered(app, 3); }, 10s));

  const auto batches = eventsPerBatch(server);
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(batches[1], (std::vector<std::string>{"purchase", "open"}));  // newest first
  EXPECT_EQ(receivedSequenceNumbers(server), (std::multiset<int64_t>{0, 2, 3}));
}

}  // namespace
}  // namespace vntr::test
