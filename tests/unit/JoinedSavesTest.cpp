// The answers to one batch are saved with one commit: nothing of them reaches the file before
// the dispatch ends, everything does after it, and a failing dispatch leaves the store usable.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRBatchDispatch.hpp"

namespace vntr {
namespace {

namespace fs = std::filesystem;
using test::rowsOnDisk;

class JoinedSavesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store = std::make_unique<EventDataManager>(dir.path(), queue, queue->sharedClock());
    queue->runUntilIdle();
    store->performAndWait([&] {
      for (int i = 0; i < 5; ++i) store->insert("id" + std::to_string(i), "{}", 1.0 + i);
      store->saveContext();
    });
  }
  fs::path file() const { return dir / "requests_Data.sqlite"; }
  std::vector<std::shared_ptr<VNTRSyncEvent>> queued() {
    std::vector<std::shared_ptr<VNTRSyncEvent>> events;
    store->performAndWait([&] { events = store->deQueue(0); });
    return events;
  }

  test::TempDir dir;
  std::shared_ptr<ManualExecutor> queue = std::make_shared<ManualExecutor>();
  std::unique_ptr<EventDataManager> store;
};

TEST_F(JoinedSavesTest, AnswersReachTheFileTogetherAtTheEnd) {
  const auto events = queued();
  ASSERT_EQ(events.size(), 5u);
  std::vector<int64_t> seenDuring;
  store->performAndWaitJoiningSaves([&] {
    for (const auto& event : events) {
      event->processResult(nlohmann::json::object());
      seenDuring.push_back(rowsOnDisk(file()));
    }
    EXPECT_EQ(store->count(), 0);  // the queue itself sees the deletes at once
  });
  EXPECT_EQ(seenDuring, std::vector<int64_t>(5, 5));
  EXPECT_EQ(rowsOnDisk(file()), 0);
  bool changes = true;
  store->performAndWait([&] { changes = store->hasChanges(); });
  EXPECT_FALSE(changes);
}

TEST_F(JoinedSavesTest, OutsideAJoinedTaskEachAnswerIsSavedAtOnce) {
  const auto events = queued();
  store->performAndWait([&] { events.front()->processResult(nlohmann::json::object()); });
  EXPECT_EQ(rowsOnDisk(file()), 4);
}

TEST_F(JoinedSavesTest, AThrowingTaskLeavesLaterSavesImmediate) {
  const auto events = queued();
  EXPECT_THROW(store->performAndWaitJoiningSaves([&] {
    events[0]->processResult(nlohmann::json::object());
    throw std::runtime_error("dispatch failed");
  }),
               std::runtime_error);
  // The delete is still pending, and the next answer saves it along with its own.
  store->performAndWait([&] { events[1]->processResult(nlohmann::json::object()); });
  EXPECT_EQ(rowsOnDisk(file()), 3);
}

TEST_F(JoinedSavesTest, ADispatchedBatchAnswerIsOneCommit) {
  const auto events = queued();
  detail::PendingTable pending;
  std::string answer = "[";
  for (const auto& event : events) {
    pending[event->id()] = event;
    if (answer.size() > 1) answer += ',';
    answer += R"({"id":")" + event->id() + R"(","result":{}})";
  }
  answer += ']';
  int64_t midway = -1;
  // A pending entry that looks at the file while the answer is being dispatched.
  struct Probe final : VNTRMethodProtocol {
    std::string probeId = "probe";
    std::function<void()> onResult;
    const std::string& id() const override { return probeId; }
    const std::string& jsonData() const override { return probeId; }
    void processResult(const nlohmann::json&) override { onResult(); }
    void nilResult() override {}
  };
  auto probe = std::make_shared<Probe>();
  probe->onResult = [&] { midway = rowsOnDisk(file()); };
  pending["probe"] = probe;
  answer.insert(answer.size() - 1, R"(,{"id":"probe","result":{}})");
  store->performAndWaitJoiningSaves([&] { detail::dispatchResults(pending, answer); });
  EXPECT_EQ(midway, 5);
  EXPECT_EQ(rowsOnDisk(file()), 0);
  EXPECT_TRUE(pending.empty());
}

}  // namespace
}  // namespace vntr
