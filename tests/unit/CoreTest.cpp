#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>

#include "core/Extensions.hpp"
#include "core/MainQueue.hpp"
#include "core/ManualExecutor.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "core/VNTRTagManagerError.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
TimePoint unixTime(int64_t s) { return TimePoint{std::chrono::seconds{s}}; }

TEST(Extensions, timestampsAreGmtWhateverTheLocalZoneAndTextIsCheckedAsUTF8) {
  setenv("TZ", "Europe/Helsinki", 1);  // UTC+2 in winter
  tzset();
  EXPECT_EQ(timestamp(unixTime(1572881412) + 999ms), "20191104153012");
  EXPECT_EQ(timestamp(unixTime(1577829599)), "20191231215959");  // 23:59:59 at UTC+2
  EXPECT_EQ(timestamp(unixTime(1577836800)), "20200101000000");  // midnight is hour 00
  unsetenv("TZ");
  tzset();
  EXPECT_DOUBLE_EQ(referenceDateSeconds(unixTime(978307200 + 86400)), 86400.0);
  EXPECT_EQ(fromReferenceDateSeconds(86400.0), unixTime(978307200 + 86400));
  EXPECT_TRUE(isValidUTF8("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
  // truncated, overlong, surrogate, past U+10FFFF, never valid
  for (const char* bad : {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  }
}

TEST(Extensions, templatesAreFoundByFullFileNameAndAMissingOneIsLogged) {
  EXPECT_EQ((*dictionaryFromJSFileNamed("SyncEventBase.js"))["method"], "syncEvent");
  EXPECT_FALSE(dataFromResourceNamed("syncEventBase.js"));
  test::CapturingLog log;
  EXPECT_FALSE(dictionaryFromJSFileNamed("Nope.js"));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[Error] Nope.js data read failed"});
}

TEST(Enumerations, rawValuesRoundTripAndOthersAreRefused) {
  for (int64_t raw = -1; raw <= 10; ++raw) {
    EXPECT_EQ(VNTRStatistic::fromRawValue(raw).has_value(), raw >= 0 && raw < 10) << raw;
    EXPECT_EQ(makeVNTRTagManagerError(static_cast<int>(raw)).has_value(), raw >= 0 && raw < 3);
  }
  EXPECT_EQ(VNTRStatistic::allValues()[9].description(), "eventCreated");
  EXPECT_STREQ(vntrTagManagerErrorCategory().name(), "VNTRTagManager.VNTRTagManagerError");
  EXPECT_EQ(std::error_code(*makeVNTRTagManagerError(2)).value(), 2);
  for (int raw : {0, 1, 3, 4, 32, 64}) {
    EXPECT_EQ(VantrelLogLevel::fromRawValue(raw).has_value(), raw == 1 || raw == 4 || raw == 32);
  }
  EXPECT_EQ(VantrelLogLevel(VantrelLogLevel::warning).description(), "Warning");
}

// A delegate that throws is the host's bug, not a reason to stop; preferences change safely from
// many threads (ThreadSanitizer watches).
TEST(VNTRPreferences, delegatesAndSettingsSurviveHostBugsAndManyThreads) {
  struct Throwing : VNTRTagManagerDelegate {
    void notifyForStatistic(int64_t, int64_t) override { throw std::runtime_error("host bug"); }
  };
  test::CapturingLog log;
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(std::make_shared<Throwing>());
  reportStatistic(VNTRStatistic::eventCreated, 1);
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
  reportStatistic(VNTRStatistic::eventCreated, 1);  // no delegate: nothing happens
  EXPECT_EQ(log.lines().size(), 1u);

  VNTRPreferences fresh;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&fresh, t] {
      for (int i = 0; i < 500; ++i) {
        fresh.setServerURL("https://example.invalid/" + std::to_string(t));
        fresh.setRequestTimeout(t + 1.0);
        fresh.setLogLevel(t % 2 ? VantrelLogLevel::error : VantrelLogLevel::verbose);
        fresh.setTagManagerDelegate(std::make_shared<test::RecordingDelegate>());
        fresh.setLoggingCallback(i % 2 ? nullptr : VNTRPreferences::LoggingCallback(&VNTRLog));
        (void)fresh.serverURL();
        (void)fresh.tagManagerDelegate();
        (void)fresh.loggingCallback();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(fresh.serverURL().starts_with("https://example.invalid/"));
}

// Messages are delivered later, on the main queue, in submission order, to the callback set at
// delivery; the default writes one filtered line to standard error; a throwing callback is
// survived.
TEST(Debug, deliversInOrderOnTheMainQueueToTheCallbackOfTheMoment) {
  {
    test::CapturingLog log;
    VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::fatal);  // not a filter here
    std::thread([] {
      for (int i = 0; i < 200; ++i) Debug(VantrelLogLevel::verbose, std::to_string(i));
    }).join();
    Debug(VantrelLogLevel::info, "a", "b", "c");
    Debug(VantrelLogLevel::error, "100% literal %s %n");
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) expected.push_back("[Verbose] " + std::to_string(i));
    expected.insert(expected.end(), {"[Info] a,b,c", "[Error] 100% literal %s %n"});
    EXPECT_EQ(log.lines(), expected);

    std::promise<void> release;
    mainQueue().post([released = release.get_future().share()] { released.wait(); });
    Debug(VantrelLogLevel::error, "late");  // submitted before the callback changes
    std::vector<std::string> replacement;
    std::atomic<bool> onMain{false};
    VNTRPreferences::sharedPreferences().setLoggingCallback([&](auto level, const auto& strings) {
      onMain = mainQueue().isCurrent();
      replacement.push_back(formatLogLine(level, strings));
    });
    release.set_value();
    test::drainMainQueue();
    EXPECT_EQ(replacement, std::vector<std::string>{"[Error] late"});
    EXPECT_TRUE(onMain);
  }
  VNTRPreferences::sharedPreferences().setLoggingCallback([](auto, const auto&) { throw 1; });
  Debug(VantrelLogLevel::error, "boom");
  test::drainMainQueue();
  VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);

  testing::internal::CaptureStderr();
  VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::warning);
  VNTRLog(VantrelLogLevel::verbose, {"hidden"});
  VNTRLog(VantrelLogLevel::warning, {"shown", "too"});
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("hidden"), std::string::npos);
  EXPECT_NE(err.find("[" + std::to_string(getpid()) + "] "), std::string::npos);
  EXPECT_NE(err.find("[Warning] shown,too\n"), std::string::npos);
}

TEST(Executors, runInOrderSurviveThrowingTasksAndRunNestedWaitsInline) {
  test::CapturingLog log;
  SerialExecutor queue("VNTRTest");
  std::vector<int> order;
  queue.post([] { throw std::runtime_error("task bug"); });
  for (int i = 0; i < 100; ++i) queue.post([&, i] { order.push_back(queue.isCurrent() ? i : -1); });
  std::atomic<bool> delayed{false};
  queue.postAfter(30ms, [&] { delayed = true; });
  queue.performAndWait([&] { queue.performAndWait([] {}); });  // would deadlock if it queued
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_TRUE(test::waitUntil([&] { return delayed.load(); }));
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"[Error] Unexpected exception on a library thread: task bug"});

  ManualExecutor manual;
  std::vector<std::string> ran;
  std::function<void()> tick = [&] {
    ran.push_back("tick");
    if (ran.size() < 4) manual.postAfter(100ms, tick);  // posted during advance, due inside it
  };
  manual.postAfter(2s, [&] { ran.push_back("two"); });
  manual.postAfter(100ms, tick);
  manual.post([&] { ran.push_back("now"); });
  EXPECT_TRUE(ran.empty());  // nothing runs until stepped
  manual.advanceBy(1500ms);
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "tick", "tick", "tick"}));
  EXPECT_EQ(*manual.nextDelay(), 500ms);
  manual.advanceBy(500ms);
  EXPECT_EQ(manual.pending(), 0u);
}

}  // namespace
}  // namespace vntr
