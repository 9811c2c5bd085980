#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/ManualExecutor.hpp"
#include "core/SerialExecutor.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;

TEST(SerialExecutor, runsTasksInOrderOnItsOwnThread) {
  SerialExecutor queue("VNTRTest");
  std::vector<int> order;
  std::atomic<bool> allOnQueue{true};
  for (int i = 0; i < 100; ++i) {
    queue.post([&, i] {
      allOnQueue = allOnQueue && queue.isCurrent();
      order.push_back(i);
    });
  }
  queue.performAndWait([] {});
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_TRUE(allOnQueue);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialExecutor, performAndWaitRunsInlineWhenAlreadyOnTheQueue) {
  SerialExecutor queue("VNTRTest");
  bool innerRan = false;
  queue.performAndWait([&] {
    queue.performAndWait([&] { innerRan = true; });  // would deadlock if it queued
    EXPECT_TRUE(innerRan);
  });
  EXPECT_TRUE(innerRan);
}

TEST(SerialExecutor, delayedTasksRunAfterTheirDelayAndThrowingTasksDoNotStopTheQueue) {
  test::CapturingLog log;
  SerialExecutor queue("VNTRTest");
  std::atomic<int> ran{0};
  const auto start = std::chrono::steady_clock::now();
  std::atomic<std::chrono::steady_clock::duration> delayedAt{};
  queue.postAfter(30ms, [&] {
    delayedAt = std::chrono::steady_clock::now() - start;
    ++ran;
  });
  queue.post([] { throw std::runtime_error("task bug"); });
  queue.post([&] { ++ran; });
  ASSERT_TRUE(test::waitUntil([&] { return ran.load() == 2; }));
  EXPECT_GE(delayedAt.load(), 30ms);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"[Error] Unexpected exception on a library thread: task bug"});
}

TEST(ManualExecutor, runsDueTasksInTimeOrderAsTheClockAdvances) {
  ManualExecutor queue;
  std::vector<std::string> ran;
  queue.postAfter(2s, [&] { ran.push_back("two"); });
  queue.postAfter(1s, [&] { ran.push_back("one"); });
  queue.post([&] {
    ran.push_back("now");
    queue.post([&] { ran.push_back("posted by now"); });
  });
  EXPECT_TRUE(ran.empty());  // nothing runs until stepped
  EXPECT_EQ(queue.runUntilIdle(), 2u);
  EXPECT_EQ(queue.advanceBy(1500ms), 1u);
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "posted by now", "one"}));
  ASSERT_TRUE(queue.nextDelay());
  EXPECT_EQ(*queue.nextDelay(), 500ms);
  queue.advanceBy(500ms);
  EXPECT_EQ(ran.back(), "two");
  EXPECT_EQ(queue.pending(), 0u);
}

TEST(ManualExecutor, tasksPostedDuringAdvanceRunWhenTheirTimeFallsInside) {
  ManualExecutor queue;
  const auto start = queue.clock().now();
  std::vector<std::chrono::milliseconds> at;
  std::function<void()> tick = [&] {
    at.push_back(
        std::chrono::duration_cast<std::chrono::milliseconds>(queue.clock().now() - start));
    if (at.size() < 3) queue.postAfter(100ms, tick);
  };
  queue.postAfter(100ms, tick);
  queue.advanceBy(1s);
  EXPECT_EQ(at, (std::vector<std::chrono::milliseconds>{100ms, 200ms, 300ms}));
  EXPECT_EQ(queue.clock().now() - start, 1s);
}

}  // namespace
}  // namespace vntr
