#include <gtest/gtest.h>

#include "model/VNTREventFilter.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::Harness;
using Mode = test::RecordingTransport::Mode;

void setFields(Harness& h, const std::function<void(HTTPMockClient::Fields&)>& change) {
  auto fields = h.transport->mock.fields();
  change(fields);
  h.transport->mock.setFields(fields);
}

TEST(VNTRRequester, drainsTwoHundredEventsNewestFirstInBatchesOfEighty) {
  Harness h;
  h.storeEvents(200);
  const auto newestFirst = h.storedIds();
  auto& requester = h.runtime->requester();
  requester.fire();
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 0u);  // the first timer waits the batch interval
  for (int i = 0; i < 3; ++i) h.queue->advanceBy(2s);
  ASSERT_EQ(h.transport->batches(), 3u);
  for (long batch = 0; batch < 3; ++batch) {
    std::vector<std::string> expected(newestFirst.begin() + batch * 80,
                                      newestFirst.begin() + std::min(200L, batch * 80 + 80));
    expected.push_back("getEvents");
    EXPECT_EQ(h.transport->ids(static_cast<size_t>(batch)), expected);
  }
  EXPECT_EQ(h.storedCount(), 0);
  h.queue->advanceBy(10s);  // an empty store stops the cycle: no request without events
  EXPECT_EQ(h.transport->batches(), 3u);
  EXPECT_FALSE(requester.isRequesting.load());
  EXPECT_FALSE(requester.batchTimer()->isValid());
}

// A failure while the network is gone arms nothing, and the network's return sends at once;
// nothing is lost meanwhile. (Retries while online: BatchPacing; holding the batch while offline:
// NetworkNamespace.kernelRoutesGateTheRequesterAndNameTheConnectionType.)
TEST(VNTRRequester, aBatchFailedOfflineWaitsForTheNetwork) {
  Harness h;
  h.storeEvents(5);
  auto& requester = h.runtime->requester();
  const auto online = [&](bool on) {
    h.runtime->reachability().updateFlags(on ? 0x2 : 0);
    h.queue->runUntilIdle();
  };
  h.transport->mode = Mode::hold;
  requester.fire();
  h.queue->advanceBy(2s);
  ASSERT_EQ(h.transport->batches(), 1u);
  online(false);
  h.transport->releaseHeld(/*fail=*/true);
  h.queue->advanceBy(20s);
  EXPECT_EQ(h.transport->batches(), 1u);
  EXPECT_FALSE(requester.isRequesting.load());
  EXPECT_FALSE(requester.batchTimer()->isValid());
  EXPECT_EQ(h.storedCount(), 5);
  h.transport->mode = Mode::mock;
  online(true);
  EXPECT_EQ(h.transport->batches(), 2u);
  EXPECT_EQ(h.storedCount(), 0);
}

TEST(VNTRRequester, unmatchedAndUntrackedRequestsAndServerErrors) {
  test::CapturingLog log;
  Harness h;
  h.storeEvents(3);
  VNTRSyncEvent::createEvent(h.runtime->syncEventEnvironment(), {"low"}, "group",
                             nlohmann::json::object(), VNTREventPriority::low);
  h.queue->runUntilIdle();
  const auto ids = h.storedIds();  // newest first: the low event ("") then the three others
  ASSERT_EQ(ids.size(), 4u);
  const nlohmann::json answered = {{"id", ids[1]}, {"result", nlohmann::json::object()}};
  const auto answer =
      nlohmann::json::array({answered,
                             answered,  // the repeat is ignored
                             {{"id", ids[2]}, {"error", {{"code", 7}, {"message", "x"}}}},
                             {{"id", "other"}, {"error", {{"message", "only message"}}}},
                             {{"id", "third"}, {"error", nlohmann::json::object()}}});
  setFields(h, [&](auto& f) { f.jsonDataResponse = answer.dump(); });
  h.delegate->clear();
  log.clear();
  h.runtime->requester().fire();
  h.queue->advanceBy(2s);
  // The low event left at once (it can never be answered), the answered one after its answer,
  // the one answered with an error alone with a warning; the unanswered one stays for the next
  // batch.
  EXPECT_EQ(h.storedIds(), std::vector<std::string>{ids[3]});
  EXPECT_EQ(h.delegate->total(8), 3);
  for (const char* line : {"[Error] code:7 x", "[Error] only message", "[Error] ",
                           "[Warning] Nil response for a non-nil ID event. Removing event anyway."})
    EXPECT_EQ(log.count(line), 1u) << line;
}

TEST(VNTRRequester, appliesTheServersBatchIntervalClampedAndQualifiedEvents) {
  for (const auto& [ms, seconds] : std::vector<std::pair<int64_t, double>>{
           {50, 0.1}, {500000, 120.0}, {3000, 3.0}, {-5, 0.1}}) {
    SCOPED_TRACE(ms);
    Harness h;
    setFields(h, [ms](auto& f) {
      f.batchInterval = ms;
      f.qualifiedEvents =
          nlohmann::json{{"qualifiedEvents", {{{"eventName", "buy"}, {"ignoreBatch", true}}}},
                         {"expireEvents", 3600000}};
    });
    h.storeEvents(1);
    auto& requester = h.runtime->requester();
    requester.fire();
    h.queue->advanceBy(2s);
    EXPECT_DOUBLE_EQ(requester.batchIntervalSeconds.load(), seconds);
    EXPECT_TRUE(h.runtime->filter().wantsImmediateSend({"buy"}));
  }
}

// Sizing and pacing of batches against a scripted server: the byte cap, 413 halving, the
// removal of a request refused alone, failure reasons and opt-in backoff.

/// Answers every batch synchronously as configured: a proper answer (through the mock) under
/// `status`, a body that is not JSON, no body, or no response at all.
class ScriptedServer final : public HTTPClientProtocol {
 public:
  enum class Body { answer, garbage, none, noResponse };
  long status = 200;
  Body body = Body::answer;
  std::optional<double> retryAfter;
  std::vector<size_t> sizes;  // stored requests per batch

  void post(std::string batch, const std::string& url, HTTPCompletion completion) override {
    sizes.push_back(nlohmann::json::parse(batch).size() - 1);
    if (body == Body::noResponse) {
      return completion(std::nullopt, std::nullopt,
                        HTTPError{"CURL", 7, "Couldn't connect to server"});
    }
    auto data = body == Body::garbage ? std::optional<std::string>("<html>") : std::nullopt;
    if (body == Body::answer) mock.post(batch, url, [&](auto d, auto, auto) { data = d; });
    completion(data, HTTPURLResponse{url, status, retryAfter}, std::nullopt);
  }
  HTTPMockClient mock;
};

/// Turns the process-wide backoff preference on for one test.
struct BackoffOn {
  BackoffOn() { VNTRPreferences::sharedPreferences().setRetryBackoff(true); }
  ~BackoffOn() { VNTRPreferences::sharedPreferences().setRetryBackoff(false); }
};

struct Fixture {
  Fixture() { h.runtime->requester().setHttpClient(server); }
  void script(long status, ScriptedServer::Body body) {
    server->status = status;
    server->body = body;
  }
  /// Advances in 10 ms steps by `seconds`; returns how many batches went out meanwhile.
  size_t advance(double seconds) {
    const size_t before = server->sizes.size();
    for (int i = 0; i < static_cast<int>(seconds * 100 + 0.5); ++i) h.queue->advanceBy(10ms);
    return server->sizes.size() - before;
  }
  /// Seconds (in 10 ms steps) until the next batch goes out; -1 when none within `limit`.
  double untilNextBatch(double limit) {
    const size_t before = server->sizes.size();
    for (int i = 1; i <= static_cast<int>(limit * 100); ++i) {
      h.queue->advanceBy(10ms);
      if (server->sizes.size() > before) return i / 100.0;
    }
    return -1;
  }
  Harness h;
  std::shared_ptr<ScriptedServer> server = std::make_shared<ScriptedServer>();
};

TEST(BatchPacing, largeRequestsGoInSmallerBatchesUnderTheByteCap) {
  Fixture f;
  const auto& env = f.h.runtime->syncEventEnvironment();
  for (int i = 0; i < 5; ++i) {
    VNTRSyncEvent::createEvent(env, {"big"}, "group", {{"blob", std::string(600'000, 'x')}},
                               VNTREventPriority::high);
    f.h.queue->runUntilIdle();
  }
  f.h.runtime->requester().fire();
  f.advance(6);
  EXPECT_EQ(f.server->sizes, (std::vector<size_t>{3, 2}));
  EXPECT_EQ(f.h.storedCount(), 0);
}

TEST(BatchPacing, tooLargeHalvesTheBatchDownToOneRemovesWhatIsRefusedAloneThenGrowsBack) {
  Fixture f;
  test::CapturingLog log;
  f.h.storeEvents(10);
  f.script(413, ScriptedServer::Body::garbage);
  f.h.runtime->requester().fire();
  f.advance(2 * 14);
  // 10, 5, 2, then one at a time, each refused alone and removed: nothing blocks the queue.
  EXPECT_EQ(f.server->sizes, (std::vector<size_t>{10, 5, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(f.h.storedCount(), 0);
  EXPECT_EQ(log.count("[Warning] Removed a request the server refuses as too large", true), 10u);

  f.server->sizes.clear();
  f.script(200, ScriptedServer::Body::answer);
  f.h.storeEvents(10);
  f.h.runtime->requester().fire();
  f.advance(2 * 5);
  EXPECT_EQ(f.server->sizes, (std::vector<size_t>{1, 2, 4, 3}));
}

// Each kind of reply reports its statistics in order (after the batch's 0 and 1; eventsSent
// counts the stored requests only) and logs why it failed. Without backoff a failed batch keeps
// its requests and is retried at the server's pace, every 2 s; answers that came with a failure
// status still settle.
TEST(BatchPacing, eachKindOfReplyReportsItsStatisticsAndReasonAtTheServersPace) {
  using Body = ScriptedServer::Body;
  const struct {
    long status;
    Body body;
    std::vector<int64_t> statistics;
    std::string line;
    size_t batches;  // in 20 s
  } rows[] = {{200, Body::answer, {0, 1, 2, 5, 6, 8, 8}, "", 1},
              {0, Body::noResponse, {0, 1, 3}, "failed: Couldn't connect to server", 10},
              {503, Body::answer, {0, 1, 2, 5, 6, 8, 8}, "failed: HTTP status 503", 1},
              {307,
               Body::garbage,
               {0, 1, 2, 5, 7},
               "failed: HTTP status 307 with a body that is not a batch answer",
               10},
              {200, Body::none, {0, 1, 2, 4}, "failed: HTTP status 200 without a body", 10}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    Fixture f;
    test::CapturingLog log;
    f.script(row.status, row.body);
    f.h.storeEvents(2);
    f.h.delegate->clear();
    f.h.runtime->requester().fire();
    f.advance(2);
    EXPECT_EQ(f.h.delegate->statistics(), row.statistics);
    EXPECT_EQ(f.h.delegate->total(1), 2);
    EXPECT_EQ(f.advance(18) + 1, row.batches);
    EXPECT_EQ(f.h.storedCount(), row.batches == 1 ? 0 : 2);  // a failed batch keeps its requests
    EXPECT_EQ(log.count("[Info] Batch of 2 requests " + row.line),
              row.line.empty() ? 0 : row.batches);
  }
}

TEST(BatchPacing, backoffGrowsWithinItsBoundsResetsOnSuccessAndHonoursRetryAfter) {
  BackoffOn on;
  Fixture f;
  f.h.storeEvents(1);
  f.script(503, ScriptedServer::Body::garbage);
  auto& requester = f.h.runtime->requester();
  requester.fire();
  ASSERT_EQ(f.advance(2), 1u);
  // The n-th wait lies between 2^(n-1) and 2^n server intervals (2 s).
  for (const double step : {4.0, 8.0, 16.0, 32.0}) {
    SCOPED_TRACE(step);
    f.h.queue->advanceBy(10ms);
    requester.fireNow();  // asking for a batch does not cut a backoff wait short
    const double waited = 0.01 + f.untilNextBatch(step);
    EXPECT_GE(waited, step / 2);
    EXPECT_LE(waited, step + 0.01);
  }
  // A good answer settles the batch; a new failure starts again from the first step.
  f.script(200, ScriptedServer::Body::answer);
  ASSERT_EQ(f.advance(64), 1u);
  EXPECT_EQ(f.h.storedCount(), 0);
  f.h.storeEvents(1);
  f.script(503, ScriptedServer::Body::garbage);
  requester.fire();
  // The server's interval again: at most 2 s (the timer may have been armed by the answer's
  // reply handling a little before this fire).
  EXPECT_LE(f.untilNextBatch(3), 2.0);
  const double waited = f.untilNextBatch(5);
  EXPECT_GE(waited, 2.0);
  EXPECT_LE(waited, 4.0);
  // A wait the server asks for with Retry-After is longer than the backoff's (at most 16 s here).
  f.script(429, ScriptedServer::Body::none);
  f.server->retryAfter = 30;
  ASSERT_GT(f.untilNextBatch(9), 0);
  EXPECT_EQ(f.advance(29.9), 0u);
  EXPECT_EQ(f.advance(0.2), 1u);
}

}  // namespace
}  // namespace vntr
