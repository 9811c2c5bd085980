#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "core/Extensions.hpp"
#include "core/VNTRStatistic.hpp"
#include "core/VNTRTagManagerError.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using std::chrono::seconds;

TimePoint unixTime(int64_t s) { return TimePoint{seconds{s}}; }

TEST(Timestamp, formatsGmtWithFourteenDigitsWhateverTheLocalZone) {
  const char* previous = std::getenv("TZ");
  const std::string saved = previous ? previous : "";
  setenv("TZ", "Europe/Helsinki", 1);  // UTC+2 in winter
  tzset();
  EXPECT_EQ(timestamp(unixTime(1572881412)), "20191104153012");  // 2019-11-04 15:30:12 UTC
  EXPECT_EQ(timestamp(unixTime(1577836799)), "20191231235959");
  EXPECT_EQ(timestamp(unixTime(1577829599)), "20191231215959");  // 23:59:59 at UTC+2
  EXPECT_EQ(timestamp(unixTime(1577836800)), "20200101000000");  // midnight is hour 00
  EXPECT_EQ(timestamp(unixTime(1572881412) + std::chrono::milliseconds(999)), "20191104153012");
  if (previous)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

TEST(ReferenceDate, countsSecondsSince2001) {
  EXPECT_DOUBLE_EQ(referenceDateSeconds(unixTime(978307200)), 0.0);
  EXPECT_DOUBLE_EQ(referenceDateSeconds(unixTime(978307200 + 86400)), 86400.0);
  EXPECT_EQ(fromReferenceDateSeconds(86400.0), unixTime(978307200 + 86400));
}

TEST(Resources, areFoundByFullFileNameOnly) {
  for (const char* name : {"SyncEventBase.js", "GetEventsBase.js", "base_response_sync_event.js",
                           "base_response_get_events.js"}) {
    EXPECT_TRUE(dataFromResourceNamed(name)) << name;
  }
  EXPECT_FALSE(dataFromResourceNamed("SyncEventBase"));
  EXPECT_FALSE(dataFromResourceNamed("syncEventBase.js"));
}

TEST(Resources, templatesHaveTheMembersTheRequestsNeed) {
  const auto sync = dictionaryFromJSFileNamed("SyncEventBase.js");
  ASSERT_TRUE(sync);
  EXPECT_EQ((*sync)["method"], "syncEvent");
  EXPECT_TRUE((*sync)["params"]["deviceData"].is_object());
  EXPECT_TRUE((*sync)["params"]["appInfo"].is_object());
  const auto get = dictionaryFromJSFileNamed("GetEventsBase.js");
  ASSERT_TRUE(get);
  EXPECT_EQ((*get)["method"], "getEvents");
  EXPECT_TRUE((*get)["params"]["deviceData"].is_object());
  EXPECT_TRUE((*dictionaryFromJSFileNamed("base_response_get_events.js"))["result"].is_object());
}

TEST(Resources, missingResourceLogsDataReadFailed) {
  test::CapturingLog log;
  EXPECT_FALSE(dictionaryFromJSFileNamed("Nope.js"));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[Error] Nope.js data read failed"});
}

TEST(VNTRStatistic, hasTenValuesInRawOrderWithNames) {
  const auto& all = VNTRStatistic::allValues();
  ASSERT_EQ(all.size(), 10u);
  std::set<std::string_view> names;
  for (int64_t i = 0; i < 10; ++i) {
    EXPECT_EQ(all[i].rawValue(), i);
    EXPECT_EQ(VNTRStatistic::fromRawValue(i)->rawValue(), i);
    names.insert(all[i].description());
  }
  EXPECT_EQ(names.size(), 10u);
  EXPECT_EQ(VNTRStatistic(VNTRStatistic::eventCreated).description(), "eventCreated");
  EXPECT_FALSE(VNTRStatistic::fromRawValue(10));
  EXPECT_FALSE(VNTRStatistic::fromRawValue(-1));
}

struct RecordingDelegate : VNTRTagManagerDelegate {
  std::vector<std::pair<int64_t, int64_t>> calls;
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    calls.emplace_back(statistic, adjustment);
  }
};

TEST(ReportStatistic, notifiesTheCurrentDelegateAndSurvivesOneThatThrows) {
  auto& preferences = VNTRPreferences::sharedPreferences();
  reportStatistic(VNTRStatistic::eventCreated, 1);  // no delegate: nothing happens
  auto delegate = std::make_shared<RecordingDelegate>();
  preferences.setTagManagerDelegate(delegate);
  reportStatistic(VNTRStatistic::eventsSent, 80);
  struct Throwing : VNTRTagManagerDelegate {
    void notifyForStatistic(int64_t, int64_t) override { throw std::runtime_error("host bug"); }
  };
  test::CapturingLog log;
  preferences.setTagManagerDelegate(std::make_shared<Throwing>());
  reportStatistic(VNTRStatistic::eventCreated, 1);
  preferences.setTagManagerDelegate(nullptr);
  EXPECT_EQ(delegate->calls, (std::vector<std::pair<int64_t, int64_t>>{{1, 80}}));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(VNTRPreferences, startsWithDocumentedDefaultsAndIsSafeToChangeFromManyThreads) {
  VNTRPreferences fresh;
  EXPECT_EQ(fresh.logLevel(), VantrelLogLevel::warning);
  EXPECT_EQ(fresh.requestTimeout(), 30.0);
  EXPECT_EQ(fresh.tagManagerDelegate(), nullptr);
  EXPECT_NE(fresh.serverURL().find("https://"), std::string::npos);
  EXPECT_EQ(fresh.serverURL().substr(fresh.serverURL().size() - 5), "/tags");
  ASSERT_TRUE(fresh.loggingCallback());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&fresh, t] {
      for (int i = 0; i < 500; ++i) {
        fresh.setServerURL("https://example.invalid/" + std::to_string(t));
        fresh.setRequestTimeout(t + 1.0);
        fresh.setLogLevel(t % 2 ? VantrelLogLevel::error : VantrelLogLevel::verbose);
        fresh.setTagManagerDelegate(std::make_shared<RecordingDelegate>());
        fresh.setLoggingCallback(i % 2 ? nullptr : VNTRPreferences::LoggingCallback(&VNTRLog));
        (void)fresh.serverURL();
        (void)fresh.tagManagerDelegate();
        (void)fresh.loggingCallback();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(fresh.serverURL().rfind("https://example.invalid/", 0), 0u);
}

TEST(VNTRTagManagerError, hasItsDomainAndThreeRawValues) {
  EXPECT_STREQ(vntrTagManagerErrorCategory().name(), "VNTRTagManager.VNTRTagManagerError");
  for (int raw : {0, 1, 2}) {
    ASSERT_TRUE(makeVNTRTagManagerError(raw));
    EXPECT_EQ(std::error_code(*makeVNTRTagManagerError(raw)).value(), raw);
  }
  EXPECT_FALSE(makeVNTRTagManagerError(3));
}

TEST(IsValidUTF8, acceptsWellFormedAndRejectsBrokenSequences) {
  EXPECT_TRUE(isValidUTF8("plain ascii"));
  EXPECT_TRUE(isValidUTF8("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
  EXPECT_FALSE(isValidUTF8("\xc3"));              // truncated
  EXPECT_FALSE(isValidUTF8("\xc0\xaf"));          // overlong
  EXPECT_FALSE(isValidUTF8("\xed\xa0\x80"));      // surrogate
  EXPECT_FALSE(isValidUTF8("\xf4\x90\x80\x80"));  // past U+10FFFF
  EXPECT_FALSE(isValidUTF8("\xff"));
}

}  // namespace
}  // namespace vntr
