#include "commons/session.h"

#include <sys/stat.h>
#include <unistd.h>

#include "commons/commons.h"
#include "support.h"

namespace {

std::string failureOf(const std::string& path) {
  return whatOf<Exc<&UnableToCreateSession>>([&] { SessionFiles{path}; });
}

const std::string NO_SESSION = "Unable to create session: Unable to create session directory";
const std::string NO_ARCHIVES =
    "Unable to create session: Unable to create session archives directory";

}  // namespace

TEST(SessionFilesTest, MakesItsDirectoriesAndTheirParentsForRootAndTheServiceAccount) {
  const ScopedTempDir dir;
  const SessionFiles session(dir / "parents/of/session");
  for (const char* name :
       {"parents", "parents/of", "parents/of/session", "parents/of/session/archives"}) {
    EXPECT_EQ(ownerAndMode(dir / name), "0:20000 750") << name;
  }
}

TEST(SessionFilesTest, UsesTheUserNumberOfTheServiceAccountAsGroup) {
  IN_FRESH_PROCESS();
  const ScopedFile passwd("/etc/passwd",
                          "root:x:0:0::/:/bin/sh\nqrvadm:x:20005:20006::/:/bin/sh\n");
  const ScopedTempDir dir;
  const SessionFiles session(dir / "session");
  EXPECT_EQ(ownerAndMode(dir / "session"), "0:20005 750");
  EXPECT_EQ(ownerAndMode(dir / "session/archives"), "0:20005 750");
}

TEST(SessionFilesTest, SaysInTheSystemLogThatItsGroupIsAnothers) {
  IN_FRESH_PROCESS();
  const ScopedFile passwd("/etc/passwd",
                          "root:x:0:0::/:/bin/sh\nqrvadm:x:20005:20006::/:/bin/sh\n");
  const ScopedFile group("/etc/group", "users:x:20005:\n");
  const ScopedTempDir dir;
  const std::string path = dir / "session";
  SystemLog systemLog;
  const std::string line = "The session directory " + path +
                           " is open to group 20005 (users), which is not the group of the account "
                           "qrvadm: its members can read what is fetched";
  for (int run = 0; run < 2; ++run) {
    const SessionFiles session(path);
    EXPECT_THAT(systemLog.lines(), testing::ElementsAre(line));
  }
  ASSERT_EQ(chmod(path.c_str(), 0700), 0);
  { const SessionFiles closed(path); }
  ASSERT_EQ(chown(path.c_str(), 0, 20006), 0);
  ASSERT_EQ(chmod(path.c_str(), 0750), 0);
  { const SessionFiles own(path); }
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}

TEST(SessionFilesTest, HasNothingToSayOfTheGroupOfTheServiceAccount) {
  const ScopedTempDir dir;
  SystemLog systemLog;
  const SessionFiles session(dir / "session");
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}

TEST(SessionFilesTest, IsItsMakersWhereItCannotBeGivenAway) {
  const ScopedTempDir dir;
  inChild([&] {
    becomePlainUser();
    const SessionFiles session(dir / "session");
  });
  EXPECT_EQ(ownerAndMode(dir / "session"), "20001:20001 750");
  EXPECT_EQ(ownerAndMode(dir / "session/archives"), "20001:20001 750");
}

TEST(SessionFilesTest, UsesTheGroupOfRootWhereTheServiceAccountDoesNotExist) {
  IN_FRESH_PROCESS();
  const ScopedFile passwd("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
  const ScopedTempDir dir;
  const SessionFiles session(dir / "session");
  EXPECT_EQ(ownerAndMode(dir / "session"), "0:0 750");
}

TEST(SessionFilesTest, ReusesAnExistingSessionAsItIs) {
  const ScopedTempDir dir;
  ASSERT_EQ(make_dir(dir / "session/archives", 20001, 20002, 0711), 0);
  writeFile(dir / "session/migration.status", "old");
  const SessionFiles session(dir / "session");
  EXPECT_EQ(ownerAndMode(dir / "session"), "20001:20002 711");
  EXPECT_EQ(ownerAndMode(dir / "session/archives"), "20001:20002 711");
  EXPECT_EQ(readFile(dir / "session/migration.status"), "old");
}

TEST(SessionFilesTest, AddsTheArchivesToAnExistingSession) {
  const ScopedTempDir dir;
  ASSERT_EQ(make_dir(dir / "session", 20001, 20002, 0711), 0);
  const SessionFiles session(dir / "session");
  EXPECT_EQ(ownerAndMode(dir / "session"), "20001:20002 711");
  EXPECT_EQ(ownerAndMode(dir / "session/archives"), "0:20000 750");
}

TEST(SessionFilesTest, FollowsASymbolicLinkToADirectory) {
  const ScopedTempDir dir;
  ASSERT_EQ(make_dir(dir / "real", 0, 0, 0755), 0);
  ASSERT_EQ(symlink("real", (dir / "link").c_str()), 0);
  const SessionFiles session(dir / "link");
  EXPECT_EQ(ownerAndMode(dir / "real/archives"), "0:20000 750");
}

TEST(SessionFilesTest, RefusesAPlaceWhereNoDirectoryCanBe) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "text");
  ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
  for (const char* name : {"file", "file/session", "dangling"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(failureOf(dir / name), NO_SESSION);
  }
  EXPECT_EQ(failureOf(""), NO_SESSION);
  EXPECT_EQ(readFile(dir / "file"), "text");
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("dangling", "file"));
}

TEST(SessionFilesTest, RefusesArchivesThatAreNoDirectory) {
  const ScopedTempDir dir;
  ASSERT_EQ(make_dir(dir / "session", 0, 0, 0755), 0);
  writeFile(dir / "session/archives", "text");
  EXPECT_EQ(failureOf(dir / "session"), NO_ARCHIVES);
}

TEST(SessionFilesTest, CannotBeMadeWithoutTheRightTo) {
  inChild([] {
    becomePlainUser();
    EXPECT_EQ(failureOf("/mnt/unit-session"), NO_SESSION);
  });
}

TEST(SessionFilesTest, NamesItsFiles) {
  const ScopedTempDir dir;
  // A trailing slash is kept, so all names except that of the archives have a double slash.
  for (const std::string& path : {dir / "session", dir / "session/"}) {
    SCOPED_TRACE(path);
    SessionFiles session(path);
    session.remove();
    EXPECT_EQ(session.getDir(), path);
    EXPECT_EQ(session.getScoutResultFileName(), path + "/scout-result.xml");
    EXPECT_EQ(session.getStatusFileName(), path + "/migration.status");
    EXPECT_EQ(session.getResultFileName(), path + "/migration.result");
    EXPECT_EQ(session.getDeploymentStatusFileName(), path + "/agent-deployment.status");
    EXPECT_EQ(session.getDumpFileName(), path + "/dump.xml");
    EXPECT_EQ(session.getKorvoDumpFileName(), path + "/restore.xml");
    EXPECT_EQ(session.getLogFileName(), path + "/migration.log");
    EXPECT_EQ(session.getDumpingStatusFileName(), path + "/dumping-status.xml");
    EXPECT_EQ(session.getCidFilesDir(), dir / "session/archives");
    EXPECT_EQ(session.getCidFile("a b"), dir / "session/archives/a b");
    EXPECT_FALSE(exists(dir / "session"));
  }
}

TEST(SessionFilesTest, RemovesItselfWithEverythingInIt) {
  const ScopedTempDir dir;
  SessionFiles session(dir / "session");
  writeFile(session.getCidFile("file"), "text");
  session.remove();
  EXPECT_FALSE(exists(dir / "session"));
  session.remove();
}

TEST(SessionLifetimeControllerTest, PublishesTheSessionAndLeavesTheDirectoryBehind) {
  const ScopedTempDir dir;
  ASSERT_EQ(theSession, nullptr);
  {
    const SessionLifetimeController controller(dir / "session");
    ASSERT_NE(theSession, nullptr);
    EXPECT_EQ(theSession->getDir(), dir / "session");
  }
  EXPECT_EQ(theSession, nullptr);
  EXPECT_TRUE(exists(dir / "session/archives"));
}

TEST(SessionLifetimeControllerTest, PublishesNothingWhenThereIsNoSession) {
  EXPECT_THROW(SessionLifetimeController("/dev/null"), Exc<&UnableToCreateSession>);
  EXPECT_EQ(theSession, nullptr);
}
