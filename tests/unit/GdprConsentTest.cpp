#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "facade/GdprConsent.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::CapturingLog;
using test::TempDir;

constexpr const char* kEndpoint = "https://consent.test/gdpr/check/json/current";
const std::string kCannotDecide =
    "[Error] Unable to determine GDPR consent from stored Vendor and Purpose Strings in User "
    "Defaults.  Check values for UserDefaults IABConsent_ParsedPurposeConsents and "
    "IABConsent_ParsedVendorConsents. They may not have been set or are too short. Will attempt "
    "remote check.";
const std::string kDeterminedTrue = "[Verbose] hasGdprConsent determined to be:true";
const std::string kDeterminedFalse = "[Verbose] hasGdprConsent determined to be:false";

/// Records every GET and keeps its completion, to be answered when the test decides.
class FakeGet {
 public:
  HTTPGet function() {
    return [this](const std::string& url, HTTPCompletion completion) {
      std::scoped_lock lock(mutex_);
      urls_.push_back(url);
      pending_.push_back(std::move(completion));
    };
  }
  std::vector<std::string> urls() {
    std::scoped_lock lock(mutex_);
    return urls_;
  }
  /// Answers the oldest pending request.
  void answer(std::optional<std::string> data, std::optional<HTTPError> error = std::nullopt) {
    HTTPCompletion completion;
    {
      std::scoped_lock lock(mutex_);
      ASSERT_FALSE(pending_.empty());
      completion = std::move(pending_.front());
      pending_.erase(pending_.begin());
    }
    completion(std::move(data), HTTPURLResponse{kEndpoint, 200}, std::move(error));
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> urls_;
  std::vector<HTTPCompletion> pending_;
};

std::string vendors(size_t length, char at24) {
  std::string text(length, '1');
  if (length >= 24) text[23] = at24;
  return text;
}

struct Harness {
  TempDir dir;
  UserDefaults defaults{dir / "UserDefaults.json"};
  FakeGet get;
  std::unique_ptr<GdprConsent> consent =
      std::make_unique<GdprConsent>(defaults, get.function(), kEndpoint);

  void store(const std::optional<std::string>& subject, const std::optional<std::string>& purposes,
             const std::optional<std::string>& vendorConsents) {
    auto put = [this](const char* key, const std::optional<std::string>& value) {
      if (value)
        defaults.setString(key, *value);
      else
        defaults.removeObjectForKey(key);
    };
    put("IABConsent_SubjectToGDPR", subject);
    put("IABConsent_ParsedPurposeConsents", purposes);
    put("IABConsent_ParsedVendorConsents", vendorConsents);
  }
};

struct Row {
  const char* name;
  std::optional<std::string> subject, purposes, vendorConsents;
  std::optional<bool> subjectResult, hasResult;
  bool remote;
};

TEST(GdprConsent, decisionTable) {
  const std::string e = "e\xCC\x81";  // "e" + combining acute: one character, two code points
  const std::vector<Row> rows = {
      // clang-format off
      {"not subject", "0", {}, {}, false, true, false},
      {"not subject wins over denial", "0", "0", vendors(30, '0'), false, true, false},
      {"vendor 24 granted", "1", "1", vendors(24, '1'), true, true, false},
      {"vendor 24 denied", "1", "1", vendors(24, '0'), true, false, false},
      {"purpose 1 denied", "1", "0111", vendors(24, '1'), true, false, false},
      {"subject absent", {}, "1", vendors(40, '1'), {}, true, false},
      {"subject empty is subject", "", "1", vendors(24, '0'), true, false, false},
      {"23 vendors are too few", "1", "1", vendors(23, '1'), true, {}, true},
      {"no vendors", "1", "1", {}, true, {}, true},
      {"empty purposes", {}, "", vendors(24, '1'), {}, {}, true},
      {"no purposes", {}, {}, vendors(24, '1'), {}, {}, true},
      {"purpose 1 with a mark is not 1", "1", "1\xCC\x81", vendors(24, '1'), true, false, false},
      {"vendor 24 is a composed character", "1", "1", std::string(23, '1') + e, true, false, false},
      {"characters, not code points, are counted", "1", "1", std::string(22, '1') + e, true, {}, true},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Harness h;
    h.store(row.subject, row.purposes, row.vendorConsents);
    CapturingLog log;
    h.consent->determineGDPRConsent();
    EXPECT_EQ(h.consent->subjectToGdprConsentValue(), row.subjectResult);
    EXPECT_EQ(h.consent->hasGdprConsentValue(), row.hasResult);
    EXPECT_EQ(h.consent->subjectToGdprConsent(), row.subjectResult.value_or(true));
    EXPECT_EQ(h.consent->hasGdprConsent(), row.hasResult.value_or(false));
    EXPECT_EQ(h.get.urls(),
              row.remote ? std::vector<std::string>{kEndpoint} : std::vector<std::string>{});
    EXPECT_EQ(log.lines(),
              row.remote ? std::vector<std::string>{kCannotDecide} : std::vector<std::string>{});
  }
  Harness h;  // a subject stored as a number counts as absent
  h.store(std::nullopt, "1", vendors(24, '0'));
  h.defaults.setDouble("IABConsent_SubjectToGDPR", 0);
  h.consent->determineGDPRConsent();
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
}

TEST(GdprConsent, changeOfEachObservedKeyResetsAndDecidesAgain) {
  Harness h;
  h.store("1", "1", vendors(24, '1'));
  h.consent->start();
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);

  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '0'));
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '1'));
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  h.defaults.setString("IABConsent_ParsedPurposeConsents", "0");
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  h.defaults.setString("IABConsent_SubjectToGDPR", "0");
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), false);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  // The reset forgets "not subject" too: with the key gone the strings decide again.
  h.defaults.removeObjectForKey("IABConsent_SubjectToGDPR");
  EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);

  CapturingLog log;
  h.defaults.setString("unrelated", "x");
  h.defaults.removeObjectForKey("IABConsent_ParsedPurposeConsents");  // too little to decide
  EXPECT_EQ(h.consent->hasGdprConsentValue(), std::nullopt);
  EXPECT_EQ(h.get.urls().size(), 1u);
  EXPECT_EQ(log.lines(), std::vector<std::string>{kCannotDecide});

  // Once the consent object is gone its observer is too.
  h.consent.reset();
  h.defaults.setString("IABConsent_ParsedPurposeConsents", "");
  EXPECT_EQ(h.get.urls().size(), 1u);
}

// Every answer of the remote check, and a transport that fails or throws: each is logged and only
// a clear "not needed" grants consent; the subject value is never set remotely.
TEST(GdprConsent, remoteCheckAnswers) {
  const HTTPError refused{"CURL", 7, "Couldn't connect to server"};
  const std::string notRequired = "[Verbose] GDPR consent not required.";
  const std::string badFormat = "[Error] Badly formatted reponse for GDPR check.";
  const std::string notJSON = "[Error] GDPR response is not JSON.";
  const std::string failed = "[Error] Error recieved during GDPR requirement check.:";
  const std::string noData = "[Error] No data received during GDPR requirement check.";
  using Lines = std::vector<std::string>;
  const struct {
    std::optional<std::string> data;
    std::optional<HTTPError> error;
    std::optional<bool> hasResult;
    Lines lines;
  } answers[] = {
      // clang-format off
      {R"({"needs_consent": false})", {}, true, {notRequired, kDeterminedTrue}},
      {R"({"needs_consent": true})", {}, {}, {kDeterminedFalse}},
      {"{}", {}, {}, {kDeterminedFalse}},
      {R"({"needs_consent": false, "gdpr": true})", {}, true, {notRequired, kDeterminedTrue}},
      {R"({"needs_consent": false, "x": "y"})", {}, {}, {badFormat, kDeterminedFalse}},
      {R"({"needs_consent": 0})", {}, {}, {badFormat, kDeterminedFalse}},
      {"[false]", {}, {}, {badFormat, kDeterminedFalse}},
      {"false", {}, {}, {notJSON, kDeterminedFalse}},
      {"<html>busy</html>", {}, {}, {notJSON, kDeterminedFalse}},
      {"", {}, {}, {notJSON, kDeterminedFalse}},
      {"{\"needs_consent\": false, \"\xff\": true}", {}, {}, {notJSON, kDeterminedFalse}},
      {{}, refused, {}, {failed + refused.localizedDescription, noData, kDeterminedFalse}},
      // an error with data still reads the data
      {R"({"needs_consent": false})", refused, true,
       {failed + refused.localizedDescription, notRequired, kDeterminedTrue}},
      // clang-format on
  };
  for (const auto& answer : answers) {
    SCOPED_TRACE(answer.data.value_or("no data"));
    Harness h;
    h.consent->remoteRetrieveConsent();
    ASSERT_EQ(h.get.urls(), std::vector<std::string>{kEndpoint});
    CapturingLog log;
    h.get.answer(answer.data, answer.error);
    EXPECT_EQ(h.consent->hasGdprConsentValue(), answer.hasResult);
    EXPECT_EQ(h.consent->subjectToGdprConsentValue(), std::nullopt);
    EXPECT_EQ(log.lines(), answer.lines);
  }
  TempDir dir;
  UserDefaults defaults(dir / "UserDefaults.json");
  GdprConsent throwing(
      defaults, [](const std::string&, HTTPCompletion) { throw std::runtime_error("no sockets"); },
      kEndpoint);
  CapturingLog log;
  throwing.remoteRetrieveConsent();
  EXPECT_EQ(log.lines(), (Lines{failed + "no sockets", noData, kDeterminedFalse}));
}

TEST(GdprConsent, invalidEndpointNeverReachesTheTransport) {
  for (const char* endpoint :
       {"", "not a url", "gdpr/check/json/current", "ftp://consent.test/gdpr/check/json/current",
        "https://consent test/gdpr/check/json/current", "https://"}) {
    SCOPED_TRACE(endpoint);
    TempDir dir;
    UserDefaults defaults(dir / "UserDefaults.json");
    FakeGet get;
    GdprConsent consent(defaults, get.function(), endpoint);
    CapturingLog log;
    consent.determineGDPRConsent();
    EXPECT_TRUE(get.urls().empty());
    EXPECT_EQ(consent.hasGdprConsentValue(), std::nullopt);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               kCannotDecide, "[Error] Unable to check gdpr. Invalid Check URL"}));
  }
}

TEST(GdprConsent, lateAnswersStillCountAndOutliveTheirConsentObject) {
  Harness h;
  h.store("1", "1", vendors(10, '1'));
  h.consent->start();  // too short: a check goes out
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '0'));
  EXPECT_EQ(h.consent->hasGdprConsentValue(), false);
  // The older check answers after the newer local decision and still grants consent: nothing
  // orders a check against later decisions, and we keep that.
  h.get.answer(R"({"needs_consent": false})");
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);

  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(3, '1'));
  ASSERT_EQ(h.get.urls().size(), 2u);
  h.consent.reset();
  CapturingLog log;
  h.get.answer(R"({"needs_consent": false})");  // its state is still alive for it
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"[Verbose] GDPR consent not required.", kDeterminedTrue}));
}

TEST(GdprConsent, keyChangesOnSeveralThreadsWhileIntakeReads) {
  Harness h;
  h.store("1", "1", vendors(24, '1'));
  h.consent->start();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    int reads = 0;
    while (!done.load() && reads < 1'000'000) {
      (void)h.consent->hasGdprConsent();
      (void)h.consent->subjectToGdprConsent();
      ++reads;
    }
  });
  std::vector<std::thread> writers;
  for (const char* key : {"IABConsent_ParsedVendorConsents", "IABConsent_ParsedPurposeConsents"}) {
    writers.emplace_back([&h, key] {
      for (int i = 0; i < 20; ++i) h.defaults.setString(key, vendors(24, i % 2 ? '0' : '1'));
    });
  }
  for (auto& writer : writers) writer.join();
  done.store(true);
  reader.join();
  // Decisions racing on two threads may land in either order; the next change settles it.
  h.defaults.setString("IABConsent_ParsedVendorConsents", vendors(24, '1'));
  EXPECT_EQ(h.consent->hasGdprConsentValue(), true);
  EXPECT_TRUE(h.get.urls().empty());
}

}  // namespace
}  // namespace vntr
