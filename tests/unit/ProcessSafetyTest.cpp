// What keeps one process's library safe from other processes and users: the /tmp fallback
// directory check and the bound on unsaved requests.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "platform/linux/Paths.hpp"
#include "store/UnitOfWork.hpp"
#include "support/TestSupport.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;

TEST(ProcessSafety, aSharedFallbackDirectoryIsUsedOnlyWhenItIsTheUsersOwn) {
  TempDir dir;
  const struct {
    const char* name;
    char kind;  // 'd': a directory with `mode`, 'l': a link to one, 'f': a file, '-': nothing
    mode_t mode;
    const char* reason;
  } cases[] = {
      {"missing", '-', 0, "accepted"},
      {"private", 'd', 0700, "accepted"},
      {"group-writable", 'd', 0770, "others can write to it"},
      {"world-writable", 'd', 0707, "others can write to it"},
      {"symlink", 'l', 0, "it is a symbolic link"},
      {"file", 'f', 0, "it is not a directory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto path = dir / c.name;
    if (c.kind == 'd') {
      fs::create_directory(path);
      fs::permissions(path, static_cast<fs::perms>(c.mode));
    }
    if (c.kind == 'l') fs::create_directory_symlink(dir / "private", path);
    if (c.kind == 'f') std::ofstream(path) << "{}";
    EXPECT_EQ(claimPrivateDirectory(path).value_or("accepted"), c.reason);
    if (c.kind == '-' || c.mode == 0700) {
      EXPECT_EQ(fs::status(path).permissions() & fs::perms::all, fs::perms::owner_all);
    }
  }
  if (::getuid() == 0) {
    const auto foreign = dir / "foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(claimPrivateDirectory(foreign).value_or("accepted"), "it belongs to uid 65534");
  }
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
