// What keeps one process's library safe from other processes and users: the /tmp fallback
// directory check, the cross-process batch lock, and the bound on unsaved requests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "platform/linux/Paths.hpp"
#include "store/UnitOfWork.hpp"
#include "support/TestSupport.hpp"
#include "transport/BatchLock.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;

TEST(ProcessSafety, aSharedFallbackDirectoryIsUsedOnlyWhenItIsTheUsersOwn) {
  TempDir dir;
  const auto own = dir.path() / "own";
  ASSERT_EQ(::mkdir(own.c_str(), 0700), 0);
  struct Case {
    const char* name;
    std::function<void(const fs::path&)> make;  // builds the entry; nothing: left missing
    const char* reason;                         // nullptr: accepted
  } cases[] = {
      {"missing", nullptr, nullptr},
      {"private", [](const fs::path& p) { ::mkdir(p.c_str(), 0700); }, nullptr},
      {"group-writable",
       [](const fs::path& p) { ::mkdir(p.c_str(), 0700), ::chmod(p.c_str(), 0770); },
       "others can write to it"},
      {"world-writable",
       [](const fs::path& p) { ::mkdir(p.c_str(), 0700), ::chmod(p.c_str(), 0707); },
       "others can write to it"},
      {"symlink", [&](const fs::path& p) { fs::create_directory_symlink(own, p); },
       "it is a symbolic link"},
      {"file", [](const fs::path& p) { std::ofstream(p) << "{}"; }, "it is not a directory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto path = dir.path() / c.name;
    if (c.make) c.make(path);
    const auto reason = claimPrivateDirectory(path);
    if (c.reason == nullptr) {
      EXPECT_FALSE(reason) << *reason;
      struct stat info {};
      ASSERT_EQ(::lstat(path.c_str(), &info), 0);
      EXPECT_EQ(info.st_mode & 0777, 0700u);
    } else {
      EXPECT_EQ(reason.value_or("accepted"), c.reason);
    }
  }
  if (::getuid() == 0) {
    const auto foreign = dir.path() / "foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(claimPrivateDirectory(foreign).value_or("accepted"), "it belongs to uid 65534");
  }
}

TEST(ProcessSafety, theBatchLockAdmitsOneHolderAtATimeAndFollowsItsRelease) {
  TempDir dir;
  const auto file = dir.path() / "lock";
  BatchLock mine(file);
  ASSERT_TRUE(mine.tryAcquire());
  // Another process's open of the same file: a separate description, so it conflicts.
  const int other = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(other, 0);
  EXPECT_NE(::flock(other, LOCK_EX | LOCK_NB), 0);
  mine.release();
  EXPECT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
  EXPECT_FALSE(mine.tryAcquire());  // held by the other now
  ::close(other);                   // as when its process dies
  EXPECT_TRUE(mine.tryAcquire());
  mine.release();
}

TEST(ProcessSafety, unsavedInsertsAreBoundedAndTheDroppedOnesCounted) {
  store::UnitOfWork changes;
  const int64_t extra = 7;
  const auto total = static_cast<int64_t>(store::UnitOfWork::kMaxPendingInserts) + extra;
  for (int64_t n = 0; n < total; ++n) {
    changes.insert(
        store::Row{store::kFirstProvisionalKey + n, "id" + std::to_string(n), "{}", 0, nullptr});
  }
  EXPECT_EQ(changes.inserted().size(), store::UnitOfWork::kMaxPendingInserts);
  EXPECT_EQ(changes.inserted().front().id, "id" + std::to_string(extra));  // the oldest went
  EXPECT_EQ(changes.takeOverflowed(), static_cast<size_t>(extra));
  EXPECT_EQ(changes.takeOverflowed(), 0u);
}

}  // namespace
}  // namespace vntr::test
