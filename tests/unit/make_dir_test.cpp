#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "commons/commons.h"
#include "commons/content_directory.h"
#include "commons/umask_guard.h"
#include "support.h"

TEST(MakeDirTest, MakesEveryMissingParentWithTheSameOwnerGroupAndMode) {
  const ScopedTempDir dir;
  EXPECT_EQ(make_dir(dir / "a/b/c", 0, 20000, 0750), 0);
  for (const char* name : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(ownerAndMode(dir / name), "0:20000 750") << name;
  }
  EXPECT_EQ(make_dir(dir / "a/b/d", 20001, 20002, 0700), 0);
  EXPECT_EQ(ownerAndMode(dir / "a/b/d"), "20001:20002 700");
  EXPECT_EQ(ownerAndMode(dir / "a/b"), "0:20000 750");
}

TEST(MakeDirTest, TakesATrailingSlash) {
  const ScopedTempDir dir;
  EXPECT_EQ(make_dir(dir / "a/b/", 1, 2, 0711), 0);
  EXPECT_EQ(ownerAndMode(dir / "a/b"), "1:2 711");
}

TEST(MakeDirTest, LeavesWhateverExistsAsItIs) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "text");
  ASSERT_EQ(chmod((dir / "file").c_str(), 0640), 0);
  EXPECT_EQ(make_dir(dir / "file", 1, 2, 0700), 0);
  EXPECT_EQ(ownerAndMode(dir / "file"), "0:0 640");
  EXPECT_EQ(make_dir(dir.path(), 1, 2, 0700), 0);
  EXPECT_EQ(ownerAndMode(dir.path()), "0:0 777");
  EXPECT_EQ(make_dir("/", 1, 2, 0700), 0);
}

TEST(MakeDirTest, MakesARelativePath) {
  const ScopedTempDir dir;
  inChild([&] {
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    EXPECT_EQ(make_dir("one", 1, 2, 0700), 0);
    EXPECT_EQ(make_dir("two/three", 1, 2, 0700), 0);
  });
  EXPECT_EQ(ownerAndMode(dir / "one"), "1:2 700");
  EXPECT_EQ(ownerAndMode(dir / "two"), "1:2 700");
  EXPECT_EQ(ownerAndMode(dir / "two/three"), "1:2 700");
}

TEST(MakeDirTest, HeedsTheUmask) {
  const ScopedTempDir dir;
  const UmaskGuard mask(077);
  EXPECT_EQ(make_dir(dir / "directory", 0, 0, 0755), 0);
  EXPECT_EQ(ownerAndMode(dir / "directory"), "0:0 700");
}

TEST(MakeDirTest, FailsBelowAFile) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "text");
  EXPECT_NE(make_dir(dir / "file/directory", 0, 0, 0755), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_NE(make_dir(dir / "file/a/b", 0, 0, 0755), 0);
  EXPECT_EQ(readFile(dir / "file"), "text");
}

TEST(MakeDirTest, FailsForAnEmptyName) {
  EXPECT_NE(make_dir("", 0, 0, 0755), 0);
}

TEST(MakeDirTest, FailsForASymbolicLinkThatLeadsNowhere) {
  const ScopedTempDir dir;
  ASSERT_EQ(symlink("missing", (dir / "link").c_str()), 0);
  EXPECT_NE(make_dir(dir / "link", 0, 0, 0755), 0);
  EXPECT_NE(make_dir(dir / "link/directory", 0, 0, 0755), 0);
  EXPECT_EQ(entriesOf(dir.path()), std::vector<std::string>{"link"});
}

TEST(MakeDirTest, FailsWhenTheDirectoryCannotBeMadeOrGivenAway) {
  const ScopedTempDir dir;
  ASSERT_EQ(make_dir(dir / "closed", 0, 0, 0755), 0);
  inChild([&] {
    becomePlainUser();
    EXPECT_NE(make_dir(dir / "closed/directory", PLAIN, PLAIN, 0755), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_NE(make_dir(dir / "not-mine", 0, 0, 0755), 0);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(make_dir(dir / "mine", PLAIN, PLAIN, 0755), 0);
  });
  EXPECT_THAT(entriesOf(dir / "closed"), testing::IsEmpty());
  // If it stayed, the next run would use it with the wrong owner.
  EXPECT_FALSE(exists(dir / "not-mine"));
}

TEST(MakeContentDirTest, UsesAUmaskOfItsOwn) {
  const ScopedTempDir dir;
  const UmaskGuard mask(077);
  EXPECT_EQ(make_content_dir(dir / "a/b", QRVADM, QRVADM, 0777), 0);
  EXPECT_EQ(ownerAndMode(dir / "a"), "20000:20000 755");
  EXPECT_EQ(ownerAndMode(dir / "a/b"), "20000:20000 755");
  EXPECT_EQ(umask(077), 077u);
}
