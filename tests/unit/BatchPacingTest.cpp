// Sizing and pacing of batches against a scripted server: the byte cap, 413 halving, the
// removal of a request refused alone, the intake limit, failure reasons and opt-in backoff.

#include <gtest/gtest.h>

#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "facade/TagManagerCore.hpp"
#include "model/RequestSizeLimit.hpp"
#include "support/Harness.hpp"
#include "transport/BatchSizer.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::Harness;

/// Answers every batch synchronously as configured: a proper answer (through the mock) under
/// `status`, a body that is not JSON, no body, or no response at all.
class ScriptedServer final : public HTTPClientProtocol {
 public:
  enum class Body { answer, garbage, none, noResponse };
  long status = 200;
  Body body = Body::answer;
  std::optional<double> retryAfter;
  std::vector<size_t> sizes;  // stored requests per batch
  std::vector<size_t> bytes;  // body bytes per batch

  void post(std::string batch, const std::string& url, HTTPCompletion completion) override {
    const auto parsed = nlohmann::json::parse(batch);
    sizes.push_back(parsed.size() - 1);
    bytes.push_back(batch.size());
    if (body == Body::noResponse) {
      return completion(std::nullopt, std::nullopt,
                        HTTPError{"CURL", 7, "Couldn't connect to server"});
    }
    std::optional<std::string> data;
    if (body == Body::answer) {
      mock.post(batch, url, [&](auto d, auto, auto) { data = std::move(d); });
    } else if (body == Body::garbage) {
      data = "<html>";
    }
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
  for (const size_t bytes : f.server->bytes) EXPECT_LE(bytes, BatchSizer::kMaxBatchBytes);
  EXPECT_EQ(f.h.storedCount(), 0);
}

TEST(BatchPacing, tooLargeHalvesTheBatchDownToOneRemovesWhatIsRefusedAloneThenGrowsBack) {
  Fixture f;
  test::CapturingLog log;
  f.h.storeEvents(10);
  f.server->status = 413;
  f.server->body = ScriptedServer::Body::garbage;
  f.h.runtime->requester().fire();
  f.advance(2 * 14);
  // 10, 5, 2, then one at a time, each refused alone and removed: nothing blocks the queue.
  const std::vector<size_t> refused = {10, 5, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(f.server->sizes, refused);
  EXPECT_EQ(f.h.storedCount(), 0);
  size_t removed = 0;
  for (const auto& line : log.lines()) {
    removed += line.rfind("[Warning] Removed a request the server refuses as too large", 0) == 0;
  }
  EXPECT_EQ(removed, 10u);

  f.server->sizes.clear();
  f.server->status = 200;
  f.server->body = ScriptedServer::Body::answer;
  f.h.storeEvents(10);
  f.h.runtime->requester().fire();
  f.advance(2 * 5);
  EXPECT_EQ(f.server->sizes, (std::vector<size_t>{1, 2, 4, 3}));
}

TEST(BatchPacing, intakeRefusesARequestAboveTheLimitWithOneLineAndStoresNothing) {
  struct Row {
    size_t dataBytes;
    bool stored;
  };
  for (const Row row : {Row{kMaxEventRequestBytes - 4'000, true},
                        Row{kMaxEventRequestBytes - 100, false},  // the built request is larger
                        Row{kMaxEventRequestBytes + 1, false}, Row{10'000'000, false}}) {
    SCOPED_TRACE(row.dataBytes);
    Harness h;
    test::CapturingLog log;
    h.runtime->tagManager().fireEvents({"e"}, "g", {{"d", std::string(row.dataBytes, 'x')}},
                                       VNTREventPriority::high, /*startRequester=*/false);
    h.queue->runUntilIdle();
    EXPECT_EQ(h.storedCount(), row.stored ? 1 : 0);
    size_t lines = 0;
    for (const auto& line : log.lines()) lines += line.find("above the limit") != std::string::npos;
    EXPECT_EQ(lines, row.stored ? 0u : 1u);
    EXPECT_EQ(h.delegate->total(VNTRStatistic::eventCreated), row.stored ? 1 : 0);
  }
}

TEST(BatchPacing, eachFailedBatchLogsItsReason) {
  struct Row {
    long status;
    ScriptedServer::Body body;
    std::string line;
  };
  const std::vector<Row> rows = {
      {0, ScriptedServer::Body::noResponse, "failed: Couldn't connect to server"},
      {503, ScriptedServer::Body::answer, "failed: HTTP status 503"},
      {307, ScriptedServer::Body::garbage,
       "failed: HTTP status 307 with a body that is not a batch answer"},
      {200, ScriptedServer::Body::none, "failed: HTTP status 200 without a body"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    Fixture f;
    test::CapturingLog log;
    f.server->status = row.status;
    f.server->body = row.body;
    f.h.storeEvents(1);
    f.h.runtime->requester().fire();
    f.advance(2);
    EXPECT_EQ(log.count("[Info] Batch of 1 request " + row.line), 1u);
  }
}

TEST(BatchPacing, failuresKeepTheServerPaceUnlessBackoffIsOn) {
  Fixture f;
  f.h.storeEvents(1);
  f.server->status = 503;
  f.server->body = ScriptedServer::Body::garbage;
  auto& requester = f.h.runtime->requester();
  requester.fire();
  EXPECT_EQ(f.advance(20), 10u);  // every 2 s, as the server asked, failing or not
}

TEST(BatchPacing, backoffGrowsWithinItsBoundsAndResetsOnSuccess) {
  BackoffOn on;
  Fixture f;
  f.h.storeEvents(1);
  f.server->status = 503;
  f.server->body = ScriptedServer::Body::garbage;
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
  f.server->status = 200;
  f.server->body = ScriptedServer::Body::answer;
  ASSERT_EQ(f.advance(64), 1u);
  EXPECT_EQ(f.h.storedCount(), 0);
  f.h.storeEvents(1);
  f.server->status = 503;
  f.server->body = ScriptedServer::Body::garbage;
  requester.fire();
  // The server's interval again: at most 2 s (the timer may have been armed by the answer's
  // reply handling a little before this fire).
  EXPECT_LE(f.untilNextBatch(3), 2.0);
  const double waited = f.untilNextBatch(5);
  EXPECT_GE(waited, 2.0);
  EXPECT_LE(waited, 4.0);
}

TEST(BatchPacing, backoffWaitsAtLeastWhatRetryAfterAsks) {
  BackoffOn on;
  Fixture f;
  f.h.storeEvents(1);
  f.server->status = 429;
  f.server->body = ScriptedServer::Body::none;
  f.server->retryAfter = 30;
  f.h.runtime->requester().fire();
  ASSERT_EQ(f.advance(2), 1u);
  EXPECT_EQ(f.advance(29.9), 0u);
  EXPECT_EQ(f.advance(0.2), 1u);
}

}  // namespace
}  // namespace vntr
