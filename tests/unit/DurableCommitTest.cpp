// A stored request survives a power cut, not only a killed process: the commit that holds it
// reaches stable storage (the write-ahead log is synced) before eventCreated is reported, and a
// burst of calls shares its syncs instead of paying one per event.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <stdexcept>
#include <string_view>

#include "core/ManualExecutor.hpp"
#include "core/VNTRStatistic.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "support/TestSupport.hpp"

namespace {

std::atomic<int> walSyncs{0};

bool isWriteAheadLog(int fd) {
  char link[64];
  char target[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = ::readlink(link, target, sizeof target);
  return n > 4 && std::string_view(target, static_cast<size_t>(n)).ends_with("-wal");
}

}  // namespace

// SQLite syncs its files with fdatasync; this executable's definition takes its place and counts
// the syncs of write-ahead logs before making the real system call.
extern "C" int fdatasync(int fd) {
  if (isWriteAheadLog(fd)) walSyncs.fetch_add(1);
  return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

namespace vntr {
namespace {

TEST(DurableCommitTest, aBurstIsSyncedBeforeItIsReportedAndSharesItsSyncs) {
  test::Harness h;
  const auto& env = h.runtime->syncEventEnvironment();
  h.queue->runUntilIdle();
  constexpr int kBurst = 300;
  const int before = walSyncs.load();
  for (int i = 0; i < kBurst; ++i) {
    VNTRSyncEvent::createEvent(env, {"checkout"}, "purchase", {{"items", i}},
                               VNTREventPriority::high);
  }
  h.queue->runUntilIdle();  // the builds, their commit, then the statistics
  ASSERT_EQ(h.storedCount(), kBurst);
  EXPECT_EQ(h.delegate->total(VNTRStatistic::eventCreated), kBurst);
  const int syncs = walSyncs.load() - before;
  EXPECT_GE(syncs, 1) << "eventCreated was reported for commits that were never synced";
  EXPECT_LE(syncs, 4) << "a burst of " << kBurst << " calls synced per event";
}

// The answers to a batch are saved with one commit at the end of their joined task: nothing of
// them reaches the file before, everything after, even when the task throws. Answers only
// delete, so their commits do not wait for the disk (the batch cycle waits for it), while the
// next new request's commit syncs again.
TEST(DurableCommitTest, answersAreJoinedIntoOneCommitThatSkipsTheSync) {
  test::TempDir dir;
  const auto file = dir / "requests_Data.sqlite";
  auto queue = std::make_shared<ManualExecutor>();
  EventDataManager store(dir.path(), queue, queue->sharedClock());
  queue->runUntilIdle();
  std::vector<std::shared_ptr<VNTRSyncEvent>> events;
  store.performAndWait([&] {
    for (int i = 0; i < 5; ++i) store.insert("id" + std::to_string(i), "{}", 1.0 + i);
    store.saveContext();
    events = store.deQueue(0);
  });
  ASSERT_EQ(events.size(), 5u);
  const int before = walSyncs.load();
  std::vector<int64_t> seenDuring;
  store.performAndWaitJoiningSaves([&] {
    for (size_t i = 0; i < 3; ++i) {
      events[i]->processResult(nullptr);
      seenDuring.push_back(test::rowsOnDisk(file));
    }
    EXPECT_EQ(store.count(), 2);  // the queue itself sees the deletes at once
  });
  EXPECT_EQ(seenDuring, std::vector<int64_t>(3, 5));
  EXPECT_EQ(test::rowsOnDisk(file), 2);
  // A throwing task's delete stays pending; the next answer, outside any joined task, is saved
  // at once and takes it along.
  EXPECT_THROW(store.performAndWaitJoiningSaves([&] {
    events[3]->processResult(nullptr);
    throw std::runtime_error("dispatch failed");
  }),
               std::runtime_error);
  store.performAndWait([&] { events[4]->processResult(nullptr); });
  EXPECT_EQ(test::rowsOnDisk(file), 0);
  store.performAndWait([&] {
    store.insert("new", "{}", 9.0);
    store.saveContext();
  });
  EXPECT_EQ(walSyncs.load(), before + 1);
}

}  // namespace
}  // namespace vntr
