#include <sys/stat.h>

#include "commons/session.h"
#include "migrate/documents.h"
#include "migrate/session_lock.h"
#include "migrate/state.h"
#include "support.h"

using migrate::Progress;
using migrate::SessionLock;
using migrate::State;
using migrate::Step;

namespace {

/// A session directory with the directory of the state document.
class MigrateStateTest : public testing::Test {
 protected:
  MigrateStateTest() { mkdir(State::directoryIn(session()).c_str(), 0750); }
  std::string summary() const { return migrate::readDumpProblems(session()).summary(); }
  const std::string& session() const { return directory_.path(); }

 private:
  ScopedTempDir directory_;
};

State allDone() {
  State state = State::fresh();
  for (const Step step : migrate::ALL_STEPS) state.of(step).progress = Progress::DONE;
  return state;
}

std::vector<std::string> progressOf(const State& state) {
  std::vector<std::string> names;
  for (const Step step : migrate::ALL_STEPS) names.emplace_back(nameOf(state.of(step).progress));
  return names;
}

}  // namespace

TEST_F(MigrateStateTest, ComesBackAsItWasSaved) {
  State state = State::fresh();
  state.settings.set("host", "caf\xC3\xA9 <&\">");
  state.settings.set("sudo", "no");
  state.of(Step::SCOUT) = {Progress::DONE, "2026-11-21T10:00:00Z", "2026-11-21T10:00:01Z", 0, ""};
  state.of(Step::DUMP) = {Progress::FAILED, "2026-11-21T10:00:02Z", "2026-11-21T10:00:03Z", 2,
                          "a: b\n <c>"};
  state.save(session());
  const State loaded = State::load(session());
  EXPECT_EQ(loaded.settings.values(), state.settings.values());
  EXPECT_EQ(loaded.agentDir(), state.agentDir());
  EXPECT_EQ(progressOf(loaded), progressOf(state));
  const migrate::StepRecord& dump = loaded.of(Step::DUMP);
  EXPECT_EQ(dump.started, "2026-11-21T10:00:02Z");
  EXPECT_EQ(dump.ended, "2026-11-21T10:00:03Z");
  EXPECT_EQ(dump.exitCode, 2);
  EXPECT_EQ(dump.reason, "a: b\n <c>");
}

TEST_F(MigrateStateTest, LeavesNothingBesideTheDocument) {
  const State state = State::fresh();
  state.save(session());
  state.save(session());
  EXPECT_EQ(entriesOf(State::directoryIn(session())), std::vector<std::string>{"state.xml"});
  EXPECT_EQ(ownerAndMode(State::documentIn(session())), "0:20000 640");
}

TEST_F(MigrateStateTest, EachMigrationHasADirectoryOfItsOwn) {
  EXPECT_NE(State::fresh().agentDir(), State::fresh().agentDir());
}

TEST_F(MigrateStateTest, IsFinishedWhenAllThatIsWantedIsDone) {
  State state = allDone();
  EXPECT_TRUE(state.isFinished());
  state.of(Step::REMOVE).progress = Progress::WAITING;
  EXPECT_TRUE(state.isFinished());
  state.settings.set("final", "");
  EXPECT_FALSE(state.isFinished());
  state.settings.set("final", "no");
  EXPECT_TRUE(state.isFinished());
  state.settings.set("keep-agent", "no");
  EXPECT_FALSE(state.isFinished());
  state.settings.set("keep-agent", "");
  EXPECT_TRUE(state.isFinished());
  state.of(Step::CONTENT).progress = Progress::STOPPED;
  EXPECT_FALSE(state.isFinished());
  state.settings.set("no-content", "");
  EXPECT_TRUE(state.isFinished());
}

TEST_F(MigrateStateTest, GoesBackToTheStepAndToThoseBehindIt) {
  State state = allDone();
  state.of(Step::REMOVE).progress = Progress::WAITING;
  state.goBackTo(Step::CONTENT);
  EXPECT_EQ(progressOf(state),
            (std::vector<std::string>{"done", "done", "done", "waiting", "waiting", "waiting",
                                      "waiting", "waiting"}));
}

TEST_F(MigrateStateTest, GoesBackToTheDeploymentWhereTheAgentMayBeGone) {
  for (const Progress removal : {Progress::DONE, Progress::FAILED, Progress::RUNNING}) {
    State state = allDone();
    state.of(Step::REMOVE).progress = removal;
    state.goBackTo(Step::CONTENT);
    std::vector<std::string> expected(migrate::ALL_STEPS.size(), "waiting");
    expected[0] = "done";
    EXPECT_EQ(progressOf(state), expected);
  }
}

TEST_F(MigrateStateTest, GoesBackToAStepOfTheRestoreWithoutTheAgent) {
  State state = allDone();
  state.goBackTo(Step::APPLY);
  EXPECT_EQ(progressOf(state), (std::vector<std::string>{"done", "done", "done", "done", "done",
                                                         "done", "waiting", "waiting"}));
}

TEST_F(MigrateStateTest, LockIsSeenByWhoeverAsksAndFreedWithItsOwner) {
  const std::string directory = State::directoryIn(session());
  EXPECT_FALSE(SessionLock::isHeld(directory));
  {
    const SessionLock lock(directory);
    EXPECT_TRUE(SessionLock::isHeld(directory));
    EXPECT_EQ(SessionLock::holder(directory), getpid());
    EXPECT_EQ(whatOf<Exc<&MigrateSessionBusy>>([&] { const SessionLock second(directory); }),
              "Another run is at work on " + session() + " (process " + std::to_string(getpid()) +
                  "). \"sondrel-migrate status " + session() + "\" shows how far it is");
  }
  EXPECT_FALSE(SessionLock::isHeld(directory));
  const SessionLock again(directory);
}

TEST_F(MigrateStateTest, LockDoesNotFollowALink) {
  const std::string directory = State::directoryIn(session());
  writeFile(session() + "/precious", "kept");
  ASSERT_EQ(symlink((session() + "/precious").c_str(), (directory + "/lock").c_str()), 0);
  EXPECT_NE(whatOf<Exc<&MigrateImpossible>>([&] { const SessionLock lock(directory); }),
            "no exception");
  EXPECT_EQ(readFile(session() + "/precious"), "kept");
}

TEST_F(MigrateStateTest, CausesAreThoseOfTheLastErrorOutermostFirst) {
  writeFile(session() + "/transfer.result",
            "<execution-result><message><description>a warning</description></message>"
            "<message><description>outer</description><message><description>inner</description>"
            "</message></message></execution-result>");
  EXPECT_EQ(migrate::readCauses(session(), Step::CONTENT),
            (std::vector<std::string>{"outer", "inner"}));
  EXPECT_EQ(migrate::countProblems(session(), Step::CONTENT), 2);
  EXPECT_EQ(migrate::readCauses(session(), Step::DUMP), std::vector<std::string>{});
}

TEST_F(MigrateStateTest, CountsTheProblemsOfALongResult) {
  std::string result = "<execution-result status='success'>";
  for (int i = 0; i < 5000; ++i) {
    result +=
        "<message><description>" + std::string(300, 'x') + "</description><message/></message>";
  }
  writeFile(session() + "/transfer.result", result + "</execution-result>");
  EXPECT_EQ(migrate::countProblems(session(), Step::CONTENT), 5000);
}

TEST_F(MigrateStateTest, CountsWhatTheDumpSaysOfItself) {
  EXPECT_EQ(summary(), "");
  const std::string problems =
      "<problems><problem severity='error'> a\n b </problem><problem severity='warning'/>"
      "<problem severity='error' object='x'>c</problem><problem severity='later'/></problems>";
  const std::string path = session() + "/dump.xml";
  writeFile(path, "<dump>" + problems + "</dump>");
  EXPECT_EQ(summary(), "2 errors, 1 warning, 0 notes");
  EXPECT_THAT(migrate::readDumpProblems(session()).firstErrors,
              testing::ElementsAre("a b", "x: c"));
  // A document may be large, for example that of a host with thousands of sites.
  const std::string domain = "<domain name='a.test'>" + std::string(1000, 'x') + "</domain>";
  std::string large = "<dump>";
  for (int i = 0; i < 3000; ++i) large += domain;
  writeFile(path, large + problems + "</dump>");
  EXPECT_EQ(summary(), "2 errors, 1 warning, 0 notes");
  for (const std::string& other :
       {std::string("<dump><domain>") + problems + "</domain></dump>", std::string("<dump/>")}) {
    writeFile(path, other);
    EXPECT_EQ(summary(), "") << other;
  }
}

TEST_F(MigrateStateTest, SaysThatADamagedDumpCannotBeCounted) {
  const std::string unknown =
      "problems that cannot be counted: the document is damaged or too long";
  const std::string path = session() + "/dump.xml";
  for (const std::string& other :
       {std::string("no XML"), std::string(), std::string("<dump><problems>")}) {
    writeFile(path, other);
    EXPECT_EQ(summary(), unknown) << other;
  }
  writeFile(path, "<dump/>");
  ASSERT_EQ(truncate(path.c_str(), (256 << 20) + 1), 0);
  EXPECT_EQ(summary(), unknown);
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(summary(), unknown);
}

TEST_F(MigrateStateTest, ProgressIsReadFromNoLinkAndNoHugeDocument) {
  writeFile(session() + "/elsewhere", "<s done='1' total='2'/>");
  ASSERT_EQ(symlink("elsewhere", (session() + "/dumping-status.xml").c_str()), 0);
  EXPECT_EQ(migrate::describeProgress(session(), Step::DUMP, ""), "");
  unlink((session() + "/dumping-status.xml").c_str());
  writeFile(session() + "/dumping-status.xml", "<s done='1' total='2'/>");
  EXPECT_EQ(migrate::describeProgress(session(), Step::DUMP, ""), "1 of 2 done");
  writeFile(session() + "/dumping-status.xml",
            "<s done='1' total='2'/>" + std::string(1 << 20, ' '));
  EXPECT_EQ(migrate::describeProgress(session(), Step::DUMP, ""), "");
}
