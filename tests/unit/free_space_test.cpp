#include <sys/vfs.h>

#include "commons/commons.h"
#include "support.h"

TEST(FreeSpaceTest, IsCountedInBytesBeyond32Bits) {
  const ScopedTempDir dir;
  const ScopedTmpfs fileSystem(dir.path(), std::uint64_t{5} << 30);
  EXPECT_EQ(getFreeSpace(dir.path()), std::uint64_t{5} << 30);
}

TEST(FreeSpaceTest, IsThatOfTheFileSystemWhichHoldsTheFileOrDirectory) {
  const ScopedTempDir dir;
  const ScopedTmpfs fileSystem(dir.path(), 1 << 20);
  EXPECT_EQ(getFreeSpace(dir.path()), 1u << 20);
  writeFile(dir / "file", std::string(65536, 'x'));
  EXPECT_EQ(getFreeSpace(dir.path()), (1u << 20) - 65536);
  EXPECT_EQ(getFreeSpace(dir / "file"), (1u << 20) - 65536);
}

TEST(FreeSpaceTest, IsWhatAnUnprivilegedUserMayUse) {
  // Only the root file system may keep blocks for root here.
  struct statfs before;
  struct statfs after;
  std::uint64_t space;
  // Other processes may write there: repeat until nothing has changed around the measurement.
  ASSERT_TRUE(eventually([&] {
    statfs("/", &before);
    space = getFreeSpace("/");
    statfs("/", &after);
    return before.f_bavail == after.f_bavail;
  }));
  EXPECT_EQ(space, static_cast<std::uint64_t>(before.f_bavail) *
                       static_cast<std::uint64_t>(before.f_bsize));
}

TEST(FreeSpaceTest, OfAMissingPathIsAnErrorThatNamesIt) {
  EXPECT_EQ(whatOf<Exc<&CantStatFS>>([] { getFreeSpace("/mnt/missing"); }),
            "Cannot stat filesystem containing /mnt/missing: No such file or directory");
}
