#include <gtest/gtest.h>

#include <cmath>
#include <deque>

#include "core/Extensions.hpp"
#include "facade/GdprConsent.hpp"
#include "facade/TagManagerCore.hpp"
#include "model/RequestSizeLimit.hpp"
#include "model/VNTREventFilter.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::CapturingLog;
using test::Harness;
using Lines = std::vector<std::string>;

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

// The consent decision the intake consults, on its own.
constexpr const char* kEndpoint = "https://consent.test/gdpr/check/json/current";
const std::string kCannotDecide =
    "[Error] Unable to determine GDPR consent from stored Vendor and Purpose Strings in User "
    "Defaults.  Check values for UserDefaults IABConsent_ParsedPurposeConsents and "
    "IABConsent_ParsedVendorConsents. They may not have been set or are too short. Will attempt "
    "remote check.";
const std::string kTrue = "[Verbose] hasGdprConsent determined to be:true";
const std::string kFalse = "[Verbose] hasGdprConsent determined to be:false";
const std::string kNotRequired = "[Verbose] GDPR consent not required.";

std::string vendors(size_t length, char at24) {
  std::string text(length, '1');
  if (length >= 24) text[23] = at24;
  return text;
}

/// A consent object over fresh user defaults and a transport that records every GET and keeps
/// its completion, to be answered when the test decides.
struct Consent {
  explicit Consent(std::string endpoint = kEndpoint)
      : consent(std::make_unique<GdprConsent>(defaults, get(), endpoint)) {}
  HTTPGet get() {
    return [this](const std::string& url, HTTPCompletion completion) {
      if (throws) throw std::runtime_error("no sockets");
      std::scoped_lock lock(mutex);
      urls.push_back(url);
      pending.push_back(std::move(completion));
    };
  }
  /// Answers the oldest pending request.
  void answer(std::optional<std::string> data, std::optional<HTTPError> error = std::nullopt) {
    ASSERT_FALSE(pending.empty());
    const HTTPCompletion completion = std::move(pending.front());
    pending.pop_front();
    completion(std::move(data), HTTPURLResponse{kEndpoint, 200}, std::move(error));
  }
  void store(const std::optional<std::string>& subject, const std::optional<std::string>& purposes,
             const std::optional<std::string>& vendorConsents) {
    for (const auto& [key, value] : {std::pair{"IABConsent_SubjectToGDPR", subject},
                                     {"IABConsent_ParsedPurposeConsents", purposes},
                                     {"IABConsent_ParsedVendorConsents", vendorConsents}}) {
      value ? defaults.setString(key, *value) : defaults.removeObjectForKey(key);
    }
  }

  test::TempDir dir;
  UserDefaults defaults{dir / "UserDefaults.json"};
  std::mutex mutex;
  Lines urls;  // guarded by mutex while other threads may ask
  std::deque<HTTPCompletion> pending;
  bool throws = false;  // the transport throws instead of sending
  std::unique_ptr<GdprConsent> consent;
};

TEST(GdprConsent, decisionTable) {
  const std::string e = "e\xCC\x81";  // "e" + combining acute: one character, two code points
  const struct {
    const char* name;
    std::optional<std::string> subject, purposes, vendorConsents;
    std::optional<bool> subjectResult, hasResult;
  } rows[] = {
      // clang-format off
      {"not subject", "0", {}, {}, false, true},
      {"not subject wins over denial", "0", "0", vendors(30, '0'), false, true},
      {"vendor 24 granted", "1", "1", vendors(24, '1'), true, true},
      {"vendor 24 denied", "1", "1", vendors(24, '0'), true, false},
      {"purpose 1 denied", "1", "0111", vendors(24, '1'), true, false},
      {"subject absent", {}, "1", vendors(40, '1'), {}, true},
      {"subject empty is subject", "", "1", vendors(24, '0'), true, false},
      {"23 vendors are too few", "1", "1", vendors(23, '1'), true, {}},
      {"no vendors", "1", "1", {}, true, {}},
      {"empty purposes", {}, "", vendors(24, '1'), {}, {}},
      {"purpose 1 with a mark is not 1", "1", "1\xCC\x81", vendors(24, '1'), true, false},
      {"vendor 24 is a composed character", "1", "1", std::string(23, '1') + e, true, false},
      {"characters, not code points, are counted", "1", "1", std::string(22, '1') + e, true, {}},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Consent h;
    h.store(row.subject, row.purposes, row.vendorConsents);
    CapturingLog log;
    h.consent->determineGDPRConsent();
    EXPECT_EQ(h.consent->subjectToGdprConsentValue(), row.subjectResult);
    EXPECT_EQ(h.consent->hasGdprConsentValue(), row.hasResult);
    EXPECT_EQ(h.consent->subjectToGdprConsent(), row.subjectResult.value_or(true));
    EXPECT_EQ(h.consent->hasGdprConsent(), row.hasResult.value_or(false));
    // Only what the stored strings cannot decide goes to the remote check.
    EXPECT_EQ(h.urls, row.hasResult ? Lines{} : Lines{kEndpoint});
    EXPECT_EQ(log.lines(), row.hasResult ? Lines{} : Lines{kCannotDecide});
  }
  Consent h;  // a subject stored as a number counts as absent
  h.store(std::nullopt, "1", vendors(24, '0'));
  h.defaults.setDouble("IABConsent_SubjectToGDPR", 0);
  h.consent->determineGDPRConsent();
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
}

TEST(GdprConsent, changeOfEachObservedKeyResetsAndDecidesAgain) {
  Consent h;
  h.store("1", "1", vendors(24, '1'));
  h.consent->start();
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '0'));
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '1'));
  h.defaults.setString("IABConsent_ParsedPurposeConsents", "0");
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  h.defaults.setString("IABConsent_SubjectToGDPR", "0");
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), false);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  // The reset forgets "not subject" too: with the key gone the strings decide again.
  h.defaults.removeObjectForKey("IABConsent_SubjectToGDPR");
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  h.defaults.setString("unrelated", "x");
  h.defaults.removeObjectForKey("IABConsent_ParsedPurposeConsents");  // too little to decide
  EXPECT_EQ(h.consent->hasGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.urls.size(), 1u);

  // The older check answers after a newer local decision and still grants consent: nothing
  // orders a check against later decisions, and we keep that.
  h.defaults.setString("IABConsent_ParsedPurposeConsents", "0");
  h.answer(R"({"needs_consent": false})");
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  // Once the consent object is gone its observer is too, and a late answer finds its state.
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(3, '1'));
  ASSERT_EQ(h.urls.size(), 2u);
  h.consent.reset();
  h.defaults.setString("IABConsent_ParsedPurposeConsents", "");
  EXPECT_EQ(h.urls.size(), 2u);
  CapturingLog log;
  h.answer(R"({"needs_consent": false})");
  EXPECT_EQ(log.lines(), (Lines{kNotRequired, kTrue}));
}

// Every answer of the remote check, a transport that fails or throws, an endpoint that is no
// URL: each is logged and only a clear "not needed" grants consent; the subject value is never
// set remotely.
TEST(GdprConsent, remoteCheckAnswers) {
  const HTTPError refused{"CURL", 7, "Couldn't connect to server"};
  const std::string badFormat = "[Error] Badly formatted reponse for GDPR check.";
  const std::string notJSON = "[Error] GDPR response is not JSON.";
  const std::string failed = "[Error] Error recieved during GDPR requirement check.:";
  const std::string noData = "[Error] No data received during GDPR requirement check.";
  const struct {
    std::optional<std::string> data;
    std::optional<HTTPError> error;
    std::optional<bool> hasResult;
    Lines lines;
  } answers[] = {
      // clang-format off
      {R"({"needs_consent": false, "gdpr": true})", {}, true, {kNotRequired, kTrue}},
      {R"({"needs_consent": true})", {}, {}, {kFalse}},
      {"{}", {}, {}, {kFalse}},
      {R"({"needs_consent": false, "x": "y"})", {}, {}, {badFormat, kFalse}},
      {R"({"needs_consent": 0})", {}, {}, {badFormat, kFalse}},
      {"[false]", {}, {}, {badFormat, kFalse}},
      {"<html>busy</html>", {}, {}, {notJSON, kFalse}},
      {"{\"needs_consent\": false, \"\xff\": true}", {}, {}, {notJSON, kFalse}},
      {{}, refused, {}, {failed + refused.localizedDescription, noData, kFalse}},
      // an error with data still reads the data
      {R"({"needs_consent": false})", refused, true,
       {failed + refused.localizedDescription, kNotRequired, kTrue}},
      // clang-format on
  };
  for (const auto& answer : answers) {
    SCOPED_TRACE(answer.data.value_or("no data"));
    Consent h;
    h.consent->remoteRetrieveConsent();
    ASSERT_EQ(h.urls, Lines{kEndpoint});
    CapturingLog log;
    h.answer(answer.data, answer.error);
    EXPECT_EQ(h.consent->hasGdprConsentValue(), answer.hasResult);
    EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
    EXPECT_EQ(log.lines(), answer.lines);
  }
  Consent throwing;
  throwing.throws = true;
  CapturingLog log;
  throwing.consent->remoteRetrieveConsent();
  EXPECT_EQ(log.lines(), (Lines{failed + "no sockets", noData, kFalse}));
  for (const char* endpoint : {"", "gdpr/check/json/current", "ftp://consent.test/gdpr",
                               "https://consent test/gdpr", "https://"}) {
    SCOPED_TRACE(endpoint);
    Consent h(endpoint);
    log.clear();
    h.consent->determineGDPRConsent();
    EXPECT_TRUE(h.urls.empty());
    EXPECT_EQ(log.lines(),
              (Lines{kCannotDecide, "[Error] Unable to check gdpr. Invalid Check URL"}));
  }
}

}  // namespace
}  // namespace vntr
