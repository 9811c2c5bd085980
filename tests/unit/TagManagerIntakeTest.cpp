#include <gtest/gtest.h>

#include <cmath>

#include "core/Extensions.hpp"
#include "facade/TagManagerCore.hpp"
#include "model/RequestSizeLimit.hpp"
#include "model/VNTREventFilter.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::Harness;

const json kNoData = json::object();
constexpr const char* kNoSiteId =
    "[Error] The Site ID for the VNTR Tag Manager has not been set.  Please see previous errors "
    "for the reasons this might be happening.";
constexpr const char* kNoConsent =
    "[Error] GDPR consent was not granted for this app/purpose. Please re-initialize.";
constexpr const char* kInvalidData =
    "[Error] Sync Event: Invalid event Data provided.  Ensure object is valid using "
    "\"isValidJSONObject\".";
constexpr const char* kTooLarge = "[Error] Event request of at least ";

// Event data nested `levels` deep ({"a":{"a":...}}), built without recursion.
json nested(size_t levels) {
  auto data = json::object();
  for (size_t i = 1; i < levels; ++i) data = json::object({{"a", std::move(data)}});
  return data;
}

void fire(Harness& h, std::vector<std::string> events, bool startRequester = true,
          const json& data = kNoData) {
  h.runtime->tagManager().fireEvents(events, "group", data, VNTREventPriority::high,
                                     startRequester);
  h.queue->runUntilIdle();
}

// Site ID, consent, group, events, depth: each check in order, only the first failure logged.
TEST(VNTRTagManagerIntake, runsItsChecksInOrderAndLogsOnlyTheFirstFailure) {
  const struct {
    test::HarnessOptions options;
    std::vector<std::string> events;
    std::string group;
    json data;
    std::string line;
  } cases[] = {
      {{.siteId = false, .consent = false}, {}, "", kNoData, kNoSiteId},
      {{.consent = false}, {}, "", kNoData, kNoConsent},
      {{}, {}, "", kNoData, "[Error] No event group provided"},
      {{}, {}, "group", kNoData, "[Error] No events provided"},
      // Copying data this deep would overflow the caller's stack: refused before any copy.
      {{}, {"e"}, "group", nested(200'000), kInvalidData},
      // Above the size limit: the arguments alone, or the request built from them.
      {{}, {"e"}, "group", {{"d", std::string(kMaxEventRequestBytes + 1, 'x')}}, kTooLarge},
      {{}, {"e"}, "group", {{"d", std::string(kMaxEventRequestBytes - 100, 'x')}}, kTooLarge},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    test::CapturingLog log;
    Harness h(c.options);
    h.runtime->tagManager().fireEvents(c.events, c.group, c.data, VNTREventPriority::high, false);
    h.queue->runUntilIdle();
    for (const auto& other : cases)
      EXPECT_EQ(log.count(other.line, true), other.line == c.line ? 1u : 0u);
    EXPECT_EQ(h.storedCount(), 0);
  }
  Harness h;
  fire(h, {"e"}, false);
  fire(h, {"e"}, false, nested(VNTRSyncEvent::kMaxEventDataDepth));
  fire(h, {"e"}, false, {{"d", std::string(kMaxEventRequestBytes - 4'000, 'x')}});
  h.queue->advanceBy(10s);
  EXPECT_EQ(h.transport->batches(), 0u);  // the requester starts only when asked
  EXPECT_EQ(h.storedCount(), 3);
  fire(h, {"b"});
  h.queue->advanceBy(2s);
  EXPECT_EQ(h.transport->batches(), 1u);
  EXPECT_EQ(h.storedCount(), 0);
}

// A call holding an event the fresh list marks ignoreBatch cancels the pending timer and sends
// at once; while a batch is in flight it only zeroes the next interval (never two in flight).
TEST(VNTRTagManagerIntake, ignoreBatchEventsOfAFreshListAreSentAtOnce) {
  Harness h;
  auto& requester = h.runtime->requester();
  h.runtime->filter().updateFromResult(
      json::array({{{"eventName", "slow"}}, {{"eventName", "now"}, {"ignoreBatch", true}}}),
      3600000);
  fire(h, {"slow"});
  h.queue->advanceBy(1s);
  EXPECT_EQ(h.transport->batches(), 0u);
  fire(h, {"slow", "now"});
  EXPECT_EQ(h.transport->batches(), 1u);
  EXPECT_EQ(h.storedCount(), 0);
  h.transport->mode = test::RecordingTransport::Mode::hold;
  fire(h, {"slow"});
  h.queue->advanceBy(2s);
  ASSERT_TRUE(requester.isRequesting.load());
  fire(h, {"now"});
  EXPECT_EQ(h.transport->batches(), 2u);
  EXPECT_EQ(requester.nextBatchInterval.load(), 0.0);
  h.transport->mode = test::RecordingTransport::Mode::mock;
  h.transport->releaseHeld();
  h.queue->runUntilIdle();
  EXPECT_EQ(h.transport->batches(), 3u);
  EXPECT_EQ(requester.nextBatchInterval.load(), requester.batchIntervalSeconds.load());
}

// The qualified-event list the intake consults, on its own.
class FilterTest : public ::testing::Test {
 protected:
  double now() const { return referenceDateSeconds(clock->now()); }
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  const json one = json::parse(R"([{"eventName": "a"}])");
};

TEST_F(FilterTest, aFreshListAdmitsCallsHoldingOneQualifiedEventUntilItExpires) {
  VNTREventFilter filter(0, clock);
  // Bad records are skipped, a repeated name keeps its later flag, only a boolean flag counts.
  filter.updateFromResult(json::parse(R"([{"eventName": 5, "ignoreBatch": true},
      {"ignoreBatch": true}, "plain", null, {"eventName": "a", "ignoreBatch": true},
      {"eventName": "a", "ignoreBatch": false}, {"eventName": "b", "ignoreBatch": true},
      {"eventName": "c", "ignoreBatch": 1}, {"eventName": "d", "ignoreBatch": "true"}])"),
                          3'600'000);
  const auto snapshot = filter.snapshot();
  EXPECT_DOUBLE_EQ(snapshot->expiry, now() + 3600);
  EXPECT_EQ(snapshot->qualifiedEvents, (std::unordered_set<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(snapshot->qualifiedEventIgnoreBatch,
            (std::unordered_map<std::string, bool>{{"a", false}, {"b", true}}));
  EXPECT_TRUE(filter.admits({"x", "c"}));
  EXPECT_FALSE(filter.admits({"x", "y"}));
  EXPECT_FALSE(filter.admits({}));
  EXPECT_TRUE(filter.wantsImmediateSend({"a", "c", "b"}));
  EXPECT_FALSE(filter.wantsImmediateSend({"a", "c", "x"}));
  clock->advance(3600s);
  EXPECT_FALSE(filter.admits({"x"}));  // expiry == now still holds
  clock->advance(1ms);
  EXPECT_TRUE(filter.admits({"x"}));
  EXPECT_FALSE(filter.wantsImmediateSend({"b"}));  // a stale list skips no delay
}

// A stored expiry in the future starts fresh and empty (every call dropped until it passes); a
// list never loaded, or an expiry that is not a number, admits everything. An empty or unusable
// answer drops every call; one without an expiry leaves the list stale at once.
TEST_F(FilterTest, theStoredExpiryAndUnusableAnswersDecideWhatIsAdmitted) {
  VNTREventFilter later(now() + 60, clock);
  EXPECT_FALSE(later.admits({"a", "b"}));
  clock->advance(61s);
  EXPECT_TRUE(later.admits({"a", "b"}));
  EXPECT_TRUE(VNTREventFilter(std::nan(""), clock).admits({"a"}));
  VNTREventFilter filter(0, clock);
  EXPECT_TRUE(filter.admits({"a"}) && !filter.wantsImmediateSend({"a"}));
  for (const json& answer : {json::array(), json{{"eventName", "a"}}}) {
    filter.updateFromResult(one, 3'600'000);
    filter.updateFromResult(answer, 3'600'000);
    EXPECT_FALSE(filter.admits({"a"}));
  }
  filter.updateFromResult(one, 0);
  EXPECT_FALSE(filter.admits({"z"}));
  clock->advance(1ms);
  EXPECT_TRUE(filter.admits({"z"}));
  filter.updateFromResult(one, -5000);
  EXPECT_TRUE(filter.admits({"z"}));
}

}  // namespace
}  // namespace vntr
