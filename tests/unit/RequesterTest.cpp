#include <gtest/gtest.h>

#include "model/VNTREventFilter.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::Harness;
using test::RecordingTransport;

std::vector<std::string> slice(const std::vector<std::string>& v, size_t from, size_t count) {
  return {v.begin() + static_cast<long>(from), v.begin() + static_cast<long>(from + count)};
}

TEST(VNTRRequester, drainsTwoHundredEventsNewestFirstInBatchesOfEighty) {
  Harness h;
  h.storeEvents(200);
  const auto newestFirst = h.storedIds();
  std::vector<std::string> storedBefore;
  h.runtime->store().performAndWait([&] {
    for (const auto& event : h.runtime->store().deQueue(0))
      storedBefore.push_back(event->jsonData());
  });
  storedBefore.erase(storedBefore.begin(), storedBefore.begin() + 160);
  auto& requester = h.runtime->requester();
  requester.fire();
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 0u);  // the first timer waits the batch interval
  h.queue->advanceBy(2s);
  h.queue->advanceBy(2s);
  h.queue->advanceBy(2s);
  ASSERT_EQ(h.transport->batches(), 3u);
  size_t offset = 0;
  for (size_t batch = 0; batch < 3; ++batch) {
    const auto ids = h.transport->ids(batch);
    const size_t events = batch < 2 ? 80 : 40;
    ASSERT_EQ(ids.size(), events + 1);
    EXPECT_EQ(slice(ids, 0, events), slice(newestFirst, offset, events));
    EXPECT_EQ(ids.back(), "getEvents");
    offset += events;
  }
  // The body is the stored requests and the getEvents request joined byte for byte.
  const auto body = h.transport->bodies().at(2);
  std::string stored;
  for (const auto& request : storedBefore) stored += request + ",";
  ASSERT_TRUE(body.starts_with("[" + stored));
  EXPECT_EQ(nlohmann::json::parse(
                body.substr(stored.size() + 1, body.size() - stored.size() - 2))["method"],
            "getEvents");
  EXPECT_EQ(h.storedCount(), 0);
  h.queue->advanceBy(10s);  // an empty store stops the cycle: no request without events
  EXPECT_EQ(h.transport->batches(), 3u);
  EXPECT_FALSE(requester.isRequesting.load());
  EXPECT_FALSE(requester.batchTimer()->isValid());
}

TEST(VNTRRequester, reportsStatisticsInTheirOrderForEachKindOfReply) {
  struct Case {
    const char* name;
    std::function<void(RecordingTransport&)> setUp;
    std::vector<int64_t> expected;  // after the batch's 0 and 1
  };
  const std::vector<Case> cases = {
      {"answered", [](RecordingTransport&) {}, {2, 5, 6, 8, 8}},
      {"no response", [](RecordingTransport& t) { t.mode = RecordingTransport::Mode::fail; }, {3}},
      {"no data",
       [](RecordingTransport& t) {
         auto f = t.mock.fields();
         f.shouldSendNilData = true;
         t.mock.setFields(f);
       },
       {2, 4}},
      {"unparsable",
       [](RecordingTransport& t) {
         auto f = t.mock.fields();
         f.jsonDataResponse = "<html>oops</html>";
         t.mock.setFields(f);
       },
       {2, 5, 7}},
  };
  for (const auto& c : cases) {
    Harness h;
    h.storeEvents(2);
    c.setUp(*h.transport);
    h.delegate->clear();
    h.runtime->requester().fire();
    h.queue->advanceBy(2s);
    std::vector<int64_t> expected{0, 1};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    EXPECT_EQ(h.delegate->statistics(), expected) << c.name;
    EXPECT_EQ(h.delegate->total(1), 2) << c.name;  // eventsSent counts the stored events only
  }
}

TEST(VNTRRequester, holdsItsNextBatchWhileOfflineUntilReachabilityReturns) {
  Harness h({.reachabilityFlags = 0});
  h.storeEvents(3);
  auto& requester = h.runtime->requester();
  requester.fire();
  h.queue->advanceBy(2s);
  EXPECT_EQ(h.transport->batches(), 0u);
  EXPECT_TRUE(requester.batchTimer()->isValid());  // stale: expired, block kept
  requester.fire();
  h.queue->advanceBy(10s);
  EXPECT_EQ(h.transport->batches(), 0u);  // fire() does nothing while stale
  h.runtime->reachability().updateFlags(0x2);
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 1u);  // at once, not after the interval
  EXPECT_EQ(h.storedCount(), 0);
}

TEST(VNTRRequester, failedSendsRetryWhileOnlineAndWaitForTheNetworkWhenItIsGone) {
  Harness h;
  h.transport->mode = RecordingTransport::Mode::fail;
  h.storeEvents(5);
  auto& requester = h.runtime->requester();
  h.runtime->reachability().updateFlags(0x2);
  h.queue->runUntilIdle();
  ASSERT_EQ(h.transport->batches(), 1u);  // at once, then again after the interval
  h.queue->advanceBy(2s);
  EXPECT_EQ(h.transport->batches(), 2u);
  EXPECT_EQ(h.transport->ids(0), h.transport->ids(1));  // the same requests again

  // The network goes away while a batch is out: its failure arms nothing.
  h.transport->mode = RecordingTransport::Mode::hold;
  h.queue->advanceBy(2s);
  ASSERT_EQ(h.transport->batches(), 3u);
  h.runtime->reachability().updateFlags(0);
  h.transport->releaseHeld(/*fail=*/true);
  h.queue->advanceBy(20s);
  EXPECT_EQ(h.transport->batches(), 3u);
  EXPECT_FALSE(requester.isRequesting.load());
  EXPECT_FALSE(requester.batchTimer()->isValid());
  EXPECT_EQ(h.storedCount(), 5);  // nothing lost

  h.transport->mode = RecordingTransport::Mode::mock;
  h.runtime->reachability().updateFlags(0x2);
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 4u);
  EXPECT_EQ(h.storedCount(), 0);
}

TEST(VNTRRequester, fireNowDuringABatchInFlightSendsTheNextOneWithoutDelay) {
  Harness h;
  h.transport->mode = RecordingTransport::Mode::hold;
  h.storeEvents(100);
  auto& requester = h.runtime->requester();
  requester.fire();
  h.queue->advanceBy(2s);
  ASSERT_TRUE(requester.isRequesting.load());
  requester.fireNow();
  requester.fire();
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 1u);  // never two in flight
  EXPECT_EQ(requester.nextBatchInterval.load(), 0.0);
  h.transport->mode = RecordingTransport::Mode::mock;
  h.transport->releaseHeld();
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 2u);
  EXPECT_EQ(requester.nextBatchInterval.load(), requester.batchIntervalSeconds.load());
}

TEST(VNTRRequester, unmatchedAndUntrackedRequestsAndServerErrors) {
  test::CapturingLog log;
  Harness h;
  h.storeEvents(2);
  const auto& env = h.runtime->syncEventEnvironment();
  VNTRSyncEvent::createEvent(env, {"low"}, "group", nlohmann::json::object(),
                             VNTREventPriority::low);
  h.queue->runUntilIdle();
  const auto ids = h.storedIds();  // newest first: the low event ("") then the two others
  ASSERT_EQ(ids.size(), 3u);
  auto fields = h.transport->mock.fields();
  fields.jsonDataResponse =
      nlohmann::json::array(
          {
              {{"id", ids[1]}, {"result", nlohmann::json::object()}},
              {{"id", ids[1]}, {"result", nlohmann::json::object()}},  // repeated: ignored
              {{"id", "unknown"}, {"error", {{"code", 7}, {"message", "x"}}}},
              {{"id", "other"}, {"error", {{"message", "only message"}}}},
              {{"id", "third"}, {"error", nlohmann::json::object()}},
          })
          .dump();
  h.transport->mock.setFields(fields);
  h.delegate->clear();
  log.clear();
  h.runtime->requester().fire();
  h.queue->advanceBy(2s);
  // The low event left at once (it can never be answered), the answered one after its answer;
  // the unanswered high event stays for the next batch.
  EXPECT_EQ(h.storedIds(), std::vector<std::string>{ids[2]});
  EXPECT_EQ(h.delegate->total(8), 2);
  const auto lines = log.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[Error] code:7 x"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[Error] only message"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[Error] "), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "[Warning] Nil response for a non-nil ID event. Removing event anyway."),
            0);
}

TEST(VNTRRequester, appliesTheServersBatchIntervalClampedAndQualifiedEvents) {
  const std::vector<std::pair<int64_t, double>> cases = {
      {50, 0.1}, {500000, 120.0}, {3000, 3.0}, {-5, 0.1}};
  for (const auto& [ms, seconds] : cases) {
    Harness h;
    auto fields = h.transport->mock.fields();
    fields.batchInterval = ms;
    fields.qualifiedEvents =
        nlohmann::json{{"qualifiedEvents", {{{"eventName", "buy"}, {"ignoreBatch", true}}}},
                       {"expireEvents", 3600000}};
    h.transport->mock.setFields(fields);
    h.storeEvents(1);
    auto& requester = h.runtime->requester();
    requester.fire();
    h.queue->advanceBy(2s);
    EXPECT_DOUBLE_EQ(requester.batchIntervalSeconds.load(), seconds) << ms;
    const auto snapshot = h.runtime->filter().snapshot();
    EXPECT_EQ(snapshot->qualifiedEvents.count("buy"), 1u);
    EXPECT_TRUE(h.runtime->filter().wantsImmediateSend({"buy"}));
    requester.setBatchInterval(ms);  // the same clamp; the timer already armed stays
    EXPECT_DOUBLE_EQ(requester.batchIntervalSeconds.load(), seconds) << ms;
  }
}

}  // namespace
}  // namespace vntr
