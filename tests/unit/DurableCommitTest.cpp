// A stored request survives a power cut, not only a killed process: the commit that holds it
// reaches stable storage (the write-ahead log is synced) before eventCreated is reported, and a
// burst of calls shares its syncs instead of paying one per event.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
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
  h.queue->runUntilIdle();
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

// The answers to a batch only delete: their commit does not wait for the disk (the batch cycle
// waits for it), while the next new request's commit syncs again.
TEST(DurableCommitTest, answeredRequestsAreDeletedWithoutASync) {
  test::TempDir dir;
  auto queue = std::make_shared<ManualExecutor>();
  EventDataManager store(dir.path(), queue, queue->sharedClock());
  queue->runUntilIdle();
  const auto saveOne = [&](const std::string& id) {
    store.performAndWait([&] {
      store.insert(id, "{}", 1.0);
      store.saveContext();
    });
  };
  saveOne("a");
  saveOne("b");
  const int before = walSyncs.load();
  store.performAndWaitJoiningSaves([&] {
    for (const auto& event : store.deQueue(0)) event->processResult(nullptr);
  });
  EXPECT_EQ(walSyncs.load(), before);
  EXPECT_EQ(test::rowsOnDisk(dir / "requests_Data.sqlite"), 0);
  saveOne("c");
  EXPECT_EQ(walSyncs.load(), before + 1);
}

}  // namespace
}  // namespace vntr
