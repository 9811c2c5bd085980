#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "core/MainQueue.hpp"
#include "core/VNTRDebug.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

TEST(Debug, formatsLevelWordAndJoinsPiecesWithCommas) {
  test::CapturingLog log;
  Debug(VantrelLogLevel::error, "No events provided");
  Debug(VantrelLogLevel::info, "a", "b", "c");
  Debug(VantrelLogLevel::warning);
  Debug(VantrelLogLevel::verbose, "100% literal %s %n");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[Error] No events provided", "[Info] a,b,c",
                                                   "[Warning] ", "[Verbose] 100% literal %s %n"}));
}

TEST(Debug, deliversAsynchronouslyOnTheMainQueueEvenFromIt) {
  std::atomic<int> delivered{0};
  std::atomic<bool> onMainQueue{false};
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [&](VantrelLogLevel, const std::vector<std::string>&) {
        onMainQueue = mainQueue().isCurrent();
        ++delivered;
      });
  int deliveredInline = -1;
  mainQueue().performAndWait([&] {
    Debug(VantrelLogLevel::error, "from main");
    deliveredInline = delivered.load();
  });
  test::drainMainQueue();
  VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);
  EXPECT_EQ(deliveredInline, 0);
  EXPECT_EQ(delivered.load(), 1);
  EXPECT_TRUE(onMainQueue);
}

TEST(Debug, keepsSubmissionOrderFromOneThreadAndReachesCustomCallbackUnfiltered) {
  test::CapturingLog log;
  VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::fatal);
  std::thread writer([] {
    for (int i = 0; i < 200; ++i) Debug(VantrelLogLevel::verbose, std::to_string(i));
  });
  writer.join();
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(lines[i], "[Verbose] " + std::to_string(i));
}

TEST(Debug, readsTheCallbackAtDeliveryNotAtSubmission) {
  test::CapturingLog log;
  std::vector<std::string> seenByReplacement;
  // Hold the main queue so the message is submitted before the callback changes.
  std::promise<void> release;
  auto released = release.get_future().share();
  mainQueue().post([released] { released.wait(); });
  Debug(VantrelLogLevel::error, "late");
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [&](VantrelLogLevel level, const std::vector<std::string>& strings) {
        seenByReplacement.push_back(formatLogLine(level, strings));
      });
  release.set_value();
  test::drainMainQueue();
  EXPECT_EQ(seenByReplacement, std::vector<std::string>{"[Error] late"});
  EXPECT_EQ(log.count("[Error] late"), 0u);
}

TEST(Debug, survivesAThrowingCallback) {
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [](VantrelLogLevel, const std::vector<std::string>&) { throw std::runtime_error("host"); });
  Debug(VantrelLogLevel::error, "boom");
  test::drainMainQueue();
  test::CapturingLog log;  // the main queue still runs
  Debug(VantrelLogLevel::error, "after");
  EXPECT_EQ(log.count("[Error] after"), 1u);
}

TEST(VNTRLog, filtersByConfiguredLevelAndWritesOneLineToStderr) {
  auto& preferences = VNTRPreferences::sharedPreferences();
  const auto previous = preferences.logLevel();
  testing::internal::CaptureStderr();
  preferences.setLogLevel(VantrelLogLevel::warning);
  VNTRLog(VantrelLogLevel::verbose, {"hidden"});
  VNTRLog(VantrelLogLevel::warning, {"shown", "too"});
  preferences.setLogLevel(VantrelLogLevel::fatal);
  VNTRLog(VantrelLogLevel::error, {"hidden"});
  VNTRLog(VantrelLogLevel::fatal, {"%s%n"});
  const std::string err = testing::internal::GetCapturedStderr();
  preferences.setLogLevel(previous);
  EXPECT_EQ(err.find("hidden"), std::string::npos);
  EXPECT_NE(err.find("[Warning] shown,too\n"), std::string::npos);
  EXPECT_NE(err.find("[Fatal] %s%n\n"), std::string::npos);
  EXPECT_NE(err.find("[" + std::to_string(getpid()) + "] "), std::string::npos);
}

TEST(VantrelLogLevel, convertsOnlyItsSixRawValues) {
  for (int raw : {1, 2, 4, 8, 16, 32}) {
    ASSERT_TRUE(VantrelLogLevel::fromRawValue(raw)) << raw;
    EXPECT_EQ(VantrelLogLevel::fromRawValue(raw)->rawValue(), raw);
  }
  for (int raw : {0, 3, 5, 31, 33, 64, -1}) EXPECT_FALSE(VantrelLogLevel::fromRawValue(raw)) << raw;
  EXPECT_EQ(VantrelLogLevel(VantrelLogLevel::warning).description(), "Warning");
  EXPECT_EQ(VantrelLogLevel(VantrelLogLevel::verbose).description(), "Verbose");
}

}  // namespace
}  // namespace vntr
