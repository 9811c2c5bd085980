#include <gtest/gtest.h>

#include "core/ManualExecutor.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRTimer.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;

TEST(VNTRTimer, runsOnceAfterItsDelayAndStaysValidUntilInvalidated) {
  ManualExecutor main;
  int calls = 0;
  auto timer = VNTRTimer::make(main, 2.0, [&] { ++calls; });
  EXPECT_TRUE(timer->isValid());
  main.advanceBy(1999ms);
  EXPECT_EQ(calls, 0);
  main.advanceBy(1ms);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(timer->isValid());  // fired, not cleared: the stale state
  main.advanceBy(10s);
  EXPECT_EQ(calls, 1);
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
}

TEST(VNTRTimer, invalidatedBeforeItsDeadlineNeverRunsAndZeroDelayIsNotSynchronous) {
  ManualExecutor main;
  int calls = 0;
  std::weak_ptr<VNTRTimer> weak;
  {
    auto cancelled = VNTRTimer::make(main, 1.0, [&] { calls += 10; });
    cancelled->invalidate();
    weak = cancelled;
  }
  EXPECT_FALSE(weak.expired());  // the scheduled work keeps it alive until its deadline
  auto immediate = VNTRTimer::make(main, 0.0, [&] { ++calls; });
  EXPECT_EQ(calls, 0);
  main.runUntilIdle();
  EXPECT_EQ(calls, 1);
  main.advanceBy(2s);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(VNTRTimer().isValid());
}

TEST(VNTRReachability, mapsFlagsToConnectionTypes) {
  VNTRReachability reachability(VNTRReachability::Source::host);
  const std::vector<std::pair<uint32_t, std::string>> cases = {
      {0x0, "none"}, {0x2, "wifi"}, {0x40002, "carrier"}, {0x40000, "none"}};
  for (const auto& [flags, type] : cases) {
    reachability.updateFlags(flags);
    EXPECT_EQ(reachability.connectionType(), type) << flags;
    EXPECT_EQ(reachability.isReachableViaWiFi(), type == "wifi");
  }
}

TEST(VNTRReachability, everyReachableUpdateAsksForABatchButTheInitialStateDoesNot) {
  VNTRReachability reachability(VNTRReachability::Source::host, 0x2);
  int asked = 0;
  reachability.setOnReachable([&] { ++asked; });
  EXPECT_EQ(asked, 0);
  reachability.updateFlags(0x2);
  reachability.updateFlags(0x40002);  // wifi to cellular counts too
  reachability.updateFlags(0);
  EXPECT_EQ(asked, 2);
  EXPECT_FALSE(reachability.isReachable());
}

TEST(VNTRReachability, withoutMonitorIsUnknownWithAWarningOnEveryRead) {
  test::CapturingLog log;
  VNTRReachability reachability(VNTRReachability::Source::none);
  EXPECT_EQ(reachability.connectionType(), "unknown");
  EXPECT_EQ(reachability.connectionType(), "unknown");
  EXPECT_FALSE(reachability.isReachable());
  EXPECT_EQ(log.count("[Warning] Reachability is nil and will always return \"unknown\""), 2u);
}

}  // namespace
}  // namespace vntr
