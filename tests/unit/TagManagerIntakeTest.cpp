#include <gtest/gtest.h>

#include "facade/TagManagerCore.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTREventPriority.hpp"
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
constexpr const char* kNotQualified = "[Verbose] No qualified events found.  Ignoring event";

void fire(Harness& h, std::vector<std::string> events, std::string group = "group",
          VNTREventPriority priority = VNTREventPriority::high, bool startRequester = true) {
  h.runtime->tagManager().fireEvents(events, group, kNoData, priority, startRequester);
  h.queue->runUntilIdle();
}

TEST(VNTRTagManagerIntake, runsItsChecksInOrderAndLogsOnlyTheFirstFailure) {
  {
    test::CapturingLog log;
    Harness h({.siteId = false, .consent = false});
    fire(h, {}, "");
    EXPECT_EQ(log.count(kNoSiteId), 1u);
    EXPECT_EQ(log.count(kNoConsent), 0u);
    EXPECT_EQ(h.storedCount(), 0);
  }
  {
    test::CapturingLog log;
    Harness h({.consent = false});
    fire(h, {}, "");
    EXPECT_EQ(log.count(kNoConsent), 1u);
    EXPECT_EQ(log.count("[Error] No event group provided"), 0u);
    EXPECT_EQ(h.storedCount(), 0);
  }
  {
    test::CapturingLog log;
    Harness h;
    fire(h, {}, "");
    fire(h, {}, "group");
    EXPECT_EQ(log.count("[Error] No event group provided"), 1u);
    EXPECT_EQ(log.count("[Error] No events provided"), 1u);
    EXPECT_EQ(h.storedCount(), 0);
  }
}

TEST(VNTRTagManagerIntake, consentFollowsTheUserDefaults) {
  test::CapturingLog log;
  Harness h;
  fire(h, {"a"});
  EXPECT_EQ(h.storedCount(), 1);
  h.defaults->setString("IABConsent_SubjectToGDPR", "1");  // now subject, no consent strings
  fire(h, {"b"});
  EXPECT_EQ(h.storedCount(), 1);
  EXPECT_EQ(log.count(kNoConsent), 1u);
  EXPECT_FALSE(h.runtime->tagManager().hasGdprConsent());
  h.defaults->setString("IABConsent_ParsedPurposeConsents", "1");
  h.defaults->setString("IABConsent_ParsedVendorConsents", std::string(23, '0') + "1");
  fire(h, {"c"});
  EXPECT_EQ(h.storedCount(), 2);
  EXPECT_TRUE(h.runtime->tagManager().hasGdprConsent());
}

TEST(VNTRTagManagerIntake, aFreshQualifiedListAdmitsWholeCallsThatNameOneOfItsEvents) {
  test::CapturingLog log;
  Harness h;
  auto& filter = h.runtime->filter();
  fire(h, {"anything"}, "group", VNTREventPriority::high,
       false);  // never loaded: stale, everything passes
  EXPECT_EQ(h.storedCount(), 1);
  filter.updateFromResult(nlohmann::json::array({{{"eventName", "b"}}}), 3600000);
  fire(h, {"a"}, "group", VNTREventPriority::high, false);
  EXPECT_EQ(log.count(kNotQualified), 1u);
  fire(h, {"a", "b"}, "group", VNTREventPriority::high, false);
  ASSERT_EQ(h.storedCount(), 2);
  std::string json;
  h.runtime->store().performAndWait([&] { json = h.runtime->store().deQueue(1)[0]->jsonData(); });
  EXPECT_EQ(nlohmann::json::parse(json)["params"]["events"], nlohmann::json({"a", "b"}));
  h.queue->advanceBy(2h);  // the list expires: stale again
  fire(h, {"a"}, "group", VNTREventPriority::high, false);
  EXPECT_EQ(h.storedCount(), 3);
}

TEST(VNTRTagManagerIntake, startsTheRequesterOnlyWhenAsked) {
  Harness h;
  fire(h, {"a"}, "group", VNTREventPriority::high, false);
  h.queue->advanceBy(10s);
  EXPECT_EQ(h.transport->batches(), 0u);
  EXPECT_EQ(h.storedCount(), 1);
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
