#include <gtest/gtest.h>

#include "facade/TagManagerCore.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::Harness;

const nlohmann::json kNoData = nlohmann::json::object();
constexpr const char* kNoSiteId =
    "[Error] The Site ID for the VNTR Tag Manager has not been set.  Please see previous errors "
    "for the reasons this might be happening.";
constexpr const char* kNoConsent =
    "[Error] GDPR consent was not granted for this app/purpose. Please re-initialize.";

// Event data nested `levels` deep ({"a":{"a":...}}), built without recursion.
nlohmann::json nested(size_t levels) {
  auto data = nlohmann::json::object();
  for (size_t i = 1; i < levels; ++i) data = nlohmann::json::object({{"a", std::move(data)}});
  return data;
}

void fire(Harness& h, std::vector<std::string> events, std::string group = "group",
          VNTREventPriority priority = VNTREventPriority::high, bool startRequester = true) {
  h.runtime->tagManager().fireEvents(events, group, kNoData, priority, startRequester);
  h.queue->runUntilIdle();
}

// Site ID, consent, group, events, depth: each check in order, only the first failure logged.
TEST(VNTRTagManagerIntake, runsItsChecksInOrderAndLogsOnlyTheFirstFailure) {
  const struct {
    test::HarnessOptions options;
    std::vector<std::string> events;
    std::string group;
    nlohmann::json data;
    std::string line;
  } cases[] = {
      {{.siteId = false, .consent = false}, {}, "", kNoData, kNoSiteId},
      {{.consent = false}, {}, "", kNoData, kNoConsent},
      {{}, {}, "", kNoData, "[Error] No event group provided"},
      {{}, {}, "group", kNoData, "[Error] No events provided"},
      // Copying data this deep would overflow the caller's stack: refused before any copy.
      {{},
       {"e"},
       "group",
       nested(200'000),
       "[Error] Sync Event: Invalid event Data provided.  Ensure object is valid using "
       "\"isValidJSONObject\"."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    test::CapturingLog log;
    Harness h(c.options);
    h.runtime->tagManager().fireEvents(c.events, c.group, c.data, VNTREventPriority::high, false);
    h.queue->runUntilIdle();
    for (const auto& other : cases) EXPECT_EQ(log.count(other.line), &other == &c ? 1u : 0u);
    EXPECT_EQ(h.storedCount(), 0);
  }
  Harness h;
  fire(h, {"e"}, "group", VNTREventPriority::high, false);
  h.runtime->tagManager().fireEvents({"e"}, "g", nested(VNTRSyncEvent::kMaxEventDataDepth),
                                     VNTREventPriority::high, false);
  h.queue->advanceBy(10s);
  EXPECT_EQ(h.transport->batches(), 0u);  // the requester starts only when asked
  EXPECT_EQ(h.storedCount(), 2);
  fire(h, {"b"});
  h.queue->advanceBy(2s);
  EXPECT_EQ(h.transport->batches(), 1u);
  EXPECT_EQ(h.storedCount(), 0);
}

TEST(VNTRTagManagerIntake, ignoreBatchEventsOfAFreshListAreSentAtOnce) {
  Harness h;
  auto& requester = h.runtime->requester();
  h.runtime->filter().updateFromResult(
      nlohmann::json::array(
          {{{"eventName", "slow"}}, {{"eventName", "now"}, {"ignoreBatch", true}}}),
      3600000);
  fire(h, {"slow"});
  h.queue->advanceBy(1s);
  EXPECT_EQ(h.transport->batches(), 0u);  // waits for the 2 s timer
  fire(h, {"slow", "now"});
  EXPECT_EQ(h.transport->batches(), 1u);  // pending timer cancelled, batch at once
  EXPECT_EQ(h.storedCount(), 0);

  // While a batch is in flight the bypass only zeroes the next interval.
  h.transport->mode = test::RecordingTransport::Mode::hold;
  fire(h, {"slow"});
  h.queue->advanceBy(2s);
  ASSERT_TRUE(requester.isRequesting.load());
  fire(h, {"now"});
  EXPECT_EQ(h.transport->batches(), 2u);
  EXPECT_EQ(requester.nextBatchInterval.load(), 0.0);
}

}  // namespace
}  // namespace vntr
