#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "core/Extensions.hpp"
#include "model/VNTREventFilter.hpp"

namespace vntr {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

class FilterTest : public ::testing::Test {
 protected:
  double now() const { return referenceDateSeconds(clock->now()); }
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
};

TEST_F(FilterTest, aNeverLoadedListAdmitsEverythingAndSendsNothingAtOnce) {
  VNTREventFilter filter(0, clock);
  EXPECT_TRUE(filter.isStale(*filter.snapshot()));
  EXPECT_TRUE(filter.admits({"anything"}));
  EXPECT_FALSE(filter.wantsImmediateSend({"anything"}));
  // A value that is not a number must not leave the list fresh (and empty) for good.
  VNTREventFilter broken(std::nan(""), clock);
  EXPECT_TRUE(broken.admits({"anything"}));
}

TEST_F(FilterTest, aStoredFutureExpiryStartsFreshAndEmpty) {
  VNTREventFilter filter(now() + 60, clock);
  EXPECT_FALSE(filter.admits({"a", "b"}));
  clock->advance(seconds(61));
  EXPECT_TRUE(filter.admits({"a", "b"}));
}

TEST_F(FilterTest, aFreshListAdmitsCallsHoldingOneQualifiedEvent) {
  VNTREventFilter filter(0, clock);
  filter.updateFromResult(json::parse(R"([
      {"eventName": "b", "ignoreBatch": true},
      {"eventName": "c", "ignoreBatch": false},
      {"eventName": "d"}])"),
                          3'600'000);
  const auto snapshot = filter.snapshot();
  EXPECT_DOUBLE_EQ(snapshot->expiry, now() + 3600);
  EXPECT_TRUE(filter.admits({"a", "b"}));
  EXPECT_FALSE(filter.admits({"a", "x"}));
  EXPECT_FALSE(filter.admits({}));
  EXPECT_TRUE(filter.wantsImmediateSend({"a", "c", "b"}));
  EXPECT_FALSE(filter.wantsImmediateSend({"c", "d", "a"}));
  EXPECT_EQ(snapshot->qualifiedEventIgnoreBatch.count("d"), 0u);

  clock->advance(seconds(3600));
  EXPECT_FALSE(filter.admits({"x"}));  // expiry == now still holds
  clock->advance(milliseconds(1));
  EXPECT_TRUE(filter.admits({"x"}));
  EXPECT_FALSE(filter.wantsImmediateSend({"b"}));  // a stale list skips no delay
}

TEST_F(FilterTest, anEmptyAnswerReplacesTheListAndDropsEveryCallUntilItExpires) {
  VNTREventFilter filter(0, clock);
  filter.updateFromResult(json::parse(R"([{"eventName": "a"}])"), 3'600'000);
  filter.updateFromResult(json::array(), 3'600'000);
  EXPECT_FALSE(filter.admits({"a"}));
  filter.updateFromResult(json::parse(R"([{"eventName": "a"}])"), 0);
  EXPECT_TRUE(filter.admits({"a"}));
  clock->advance(milliseconds(1));
  EXPECT_TRUE(filter.admits({"z"}));
  filter.updateFromResult(json::parse(R"([{"eventName": "a"}])"), -5000);
  EXPECT_TRUE(filter.admits({"z"}));
}

TEST_F(FilterTest, badRecordsAreSkippedAndRepeatedNamesKeepTheLaterFlag) {
  VNTREventFilter filter(0, clock);
  filter.updateFromResult(json::parse(R"([
      {"eventName": 5, "ignoreBatch": true},
      {"ignoreBatch": true},
      "plain",
      null,
      {"eventName": "a", "ignoreBatch": true},
      {"eventName": "a", "ignoreBatch": false},
      {"eventName": "b", "ignoreBatch": 1},
      {"eventName": "c", "ignoreBatch": "true", "other": [1]}])"),
                          60'000);
  const auto snapshot = filter.snapshot();
  EXPECT_EQ(snapshot->qualifiedEvents, (std::unordered_set<std::string>{"a", "b", "c"}));
  EXPECT_EQ(snapshot->qualifiedEventIgnoreBatch,
            (std::unordered_map<std::string, bool>{{"a", false}}));
  // Not an array at all: an empty list, still fresh.
  filter.updateFromResult(json{{"eventName", "a"}}, 60'000);
  EXPECT_TRUE(filter.snapshot()->qualifiedEvents.empty());
  EXPECT_FALSE(filter.admits({"a"}));
}

TEST_F(FilterTest, readersOnOtherThreadsSeeWholeListsOnly) {
  VNTREventFilter filter(0, clock);
  json big = json::array();
  for (int i = 0; i < 200; ++i) big.push_back({{"eventName", "e" + std::to_string(i)}});
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!done.load()) {
        const auto snapshot = filter.snapshot();
        const size_t size = snapshot->qualifiedEvents.size();
        if (size != 0 && size != 200 && size != 1) torn.fetch_add(1);
        (void)filter.admits({"e199"});
      }
    });
  }
  for (int i = 0; i < 300; ++i) {
    filter.updateFromResult(i % 2 == 0 ? big : json::parse(R"([{"eventName": "x"}])"), 60'000);
  }
  done.store(true);
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(torn.load(), 0);
}

}  // namespace
}  // namespace vntr
