#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "support.h"

namespace {

/// Called with the path of each file before it is synced.
std::function<void(const std::string& path)> onSync;

}  // namespace

/// Replaces the function of the C library.
extern "C" int fsync(int fd) {
  char path[4096] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (onSync && readlink(link.c_str(), path, sizeof path - 1) > 0) onSync(path);
  return static_cast<int>(syscall(SYS_fsync, fd));
}

TEST(AtomicReplacementTest, ReplacesTheTargetByAPrivateFileOfTheServiceAccount) {
  const ScopedTempDir dir;
  writeFile(dir / "target", "old");
  {
    AtomicReplacement replacement(dir / "target");
    const std::string& temporary = replacement.temporaryName();
    EXPECT_THAT(temporary, testing::StartsWith(dir / "target"));
    EXPECT_EQ(temporary.size(), (dir / "target").size() + 6);
    writeFile(temporary, "new");
    EXPECT_EQ(readFile(dir / "target"), "old");
    replacement.commit();
  }
  EXPECT_EQ(readFile(dir / "target"), "new");
  EXPECT_EQ(ownerAndMode(dir / "target"), "20000:20000 600");
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
}

TEST(AtomicReplacementTest, PutsTheFileOnTheDiskBeforeAndItsDirectoryAfterItIsMoved) {
  const ScopedTempDir dir;
  writeFile(dir / "target", "old");
  AtomicReplacement replacement(dir / "target");
  writeFile(replacement.temporaryName(), "new");
  std::vector<std::string> syncs;
  onSync = [&](const std::string& path) {
    syncs.push_back(path + ", and the target is " + readFile(dir / "target"));
  };
  replacement.commit();
  onSync = nullptr;
  EXPECT_THAT(syncs, testing::ElementsAre(replacement.temporaryName() + ", and the target is old",
                                          dir.path() + ", and the target is new"));
}

TEST(AtomicReplacementTest, SyncsNothingWhenItIsCheap) {
  const ScopedTempDir dir;
  int syncs = 0;
  onSync = [&](const std::string& /*path*/) { ++syncs; };
  AtomicReplacement(dir / "target", Durability::CHEAP).commit();
  onSync = nullptr;
  EXPECT_EQ(syncs, 0);
}

TEST(AtomicReplacementTest, LeavesAnOpenFileOfTheOldTargetItsContent) {
  const ScopedTempDir dir;
  writeFile(dir / "target", "old");
  std::FILE* reader = std::fopen((dir / "target").c_str(), "r");
  AtomicReplacement replacement(dir / "target");
  writeFile(replacement.temporaryName(), "new");
  replacement.commit();
  char text[8] = {};
  EXPECT_EQ(std::fread(text, 1, sizeof text, reader), 3u);
  EXPECT_STREQ(text, "old");
  std::fclose(reader);
}

TEST(AtomicReplacementTest, RemovesTheTemporaryFileWhenItIsGivenUp) {
  const ScopedTempDir dir;
  writeFile(dir / "target", "old");
  { const AtomicReplacement replacement(dir / "target"); }
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
  EXPECT_EQ(readFile(dir / "target"), "old");
}

TEST(AtomicReplacementTest, LeavesTheTemporaryFileWhenItCannotBeGivenAway) {
  const ScopedTempDir dir;
  writeFile(dir / "target", "old");
  inChild([&] {
    becomePlainUser();
    AtomicReplacement replacement(dir / "target");
    const std::string temporary = replacement.temporaryName();
    EXPECT_EQ(whatOf<Exc<&CantTakeFileOwnership>>([&] { replacement.commit(); }),
              "Cannot take ownership of " + temporary + ": Operation not permitted");
  });
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target", testing::StartsWith("target")));
  EXPECT_EQ(readFile(dir / "target"), "old");
}

TEST(AtomicReplacementTest, LeavesTheTemporaryFileWhenItCannotBeMovedOverTheTarget) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkdir((dir / "target").c_str(), 0755), 0);
  std::string temporary;
  {
    AtomicReplacement replacement(dir / "target");
    temporary = replacement.temporaryName();
    EXPECT_EQ(whatOf<Exc<&CantRenameFile>>([&] { replacement.commit(); }),
              "Cannot rename " + temporary + " to " + (dir / "target") + ": Is a directory");
  }
  EXPECT_EQ(ownerAndMode(temporary), "20000:20000 600");
  EXPECT_EQ(ownerAndMode(dir / "target"), "0:0 755");
}

TEST(AtomicReplacementTest, ReplacesCheaplyWhetherThereIsATargetOrNot) {
  const ScopedTempDir dir;
  for (const std::string text : {"first", "second", "third"}) {
    AtomicReplacement replacement(dir / "target", Durability::CHEAP);
    ASSERT_EQ(write(replacement.descriptor(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    EXPECT_TRUE(replacement.close());
    replacement.commit();
    EXPECT_EQ(readFile(dir / "target"), text);
    EXPECT_EQ(ownerAndMode(dir / "target"), "20000:20000 600");
    EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
  }
}

TEST(AtomicReplacementTest, ReplacesALinkCheaplyAndNotWhatItLeadsTo) {
  const ScopedTempDir dir;
  writeFile(dir / "other", "old");
  ASSERT_EQ(symlink("other", (dir / "target").c_str()), 0);
  AtomicReplacement(dir / "target", Durability::CHEAP).commit();
  EXPECT_EQ(readFile(dir / "other"), "old");
  EXPECT_EQ(readFile(dir / "target"), "");
  EXPECT_THAT(entriesOf(dir.path()), testing::UnorderedElementsAre("other", "target"));
}

TEST(AtomicReplacementTest, LeavesTheDirectoryThatCannotBeReplacedCheaplyInItsPlace) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkdir((dir / "target").c_str(), 0755), 0);
  std::string temporary;
  {
    AtomicReplacement replacement(dir / "target", Durability::CHEAP);
    temporary = replacement.temporaryName();
    EXPECT_EQ(whatOf<Exc<&CantRenameFile>>([&] { replacement.commit(); }),
              "Cannot rename " + temporary + " to " + (dir / "target") + ": Is a directory");
  }
  EXPECT_EQ(ownerAndMode(temporary), "20000:20000 600");
  EXPECT_EQ(ownerAndMode(dir / "target"), "0:0 755");
}

TEST(AtomicReplacementTest, FailsInAMissingDirectoryNamingTheTemplate) {
  EXPECT_EQ(whatOf<Exc<&CantCreateTempFile>>([] { AtomicReplacement("/mnt/missing/target"); }),
            "Can not create temporary file with the template '/mnt/missing/targetXXXXXX': "
            "No such file or directory.");
}

TEST(AtomicReplacementTest, TakesANameWithoutADirectory) {
  const ScopedTempDir dir;
  inChild([&] {
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    AtomicReplacement replacement("target");
    EXPECT_EQ(replacement.temporaryName().rfind("./target", 0), 0u);
    replacement.commit();
  });
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
}

TEST(AtomicReplacementTest, UsesTheGroupOfTheServiceAccount) {
  IN_FRESH_PROCESS();
  const ScopedFile passwd("/etc/passwd",
                          "root:x:0:0::/:/bin/sh\nqrvadm:x:20005:20006::/:/bin/sh\n");
  const ScopedTempDir dir;
  AtomicReplacement(dir / "target").commit();
  EXPECT_EQ(ownerAndMode(dir / "target"), "20005:20006 600");
  EXPECT_EQ(serviceAccount().user, 20005u);
  EXPECT_EQ(serviceAccount().group, 20006u);
}

TEST(AtomicReplacementTest, GivesTheFileToTheOwnerAndTheModeThatAreNamed) {
  const ScopedTempDir dir;
  AtomicReplacement replacement(dir / "target", "begin.", {20001, 20000, 0640});
  EXPECT_THAT(replacement.temporaryName(), testing::StartsWith(dir / "begin."));
  writeFile(replacement.temporaryName(), "new");
  EXPECT_TRUE(replacement.tryCommit());
  EXPECT_EQ(readFile(dir / "target"), "new");
  EXPECT_EQ(ownerAndMode(dir / "target"), "20001:20000 640");
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
}

TEST(AtomicReplacementTest, LeavesNothingOfAnAttemptThatFails) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkdir((dir / "target").c_str(), 0755), 0);
  {
    AtomicReplacement replacement(dir / "target", "begin.", {0, 0, 0640});
    EXPECT_FALSE(replacement.tryCommit());
    EXPECT_EQ(errno, EISDIR);
  }
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("target"));
}

TEST(ServiceAccountTest, IsRootWhereItDoesNotExist) {
  IN_FRESH_PROCESS();
  const ScopedFile passwd("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
  EXPECT_EQ(serviceAccount().user, 0u);
  EXPECT_EQ(serviceAccount().group, 0u);
}
