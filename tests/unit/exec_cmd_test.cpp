#include "commons/ExecCmd.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "commons/ExSystemError.h"
#include "exec_cmd_support.h"
#include "support.h"

namespace {

/// Far more than a pipe holds.
const std::string MEGABYTE = [] {
  std::string text;
  while (text.size() < 1000000) text += std::to_string(text.size()) + "\n";
  return text;
}();

std::string failureOf(ExecCmd cmd) {
  return whatOf<Exc<&ExecCmd::ExFailed>>([&] { cmd.exec(); });
}

/// Runs a program that does not read its input.
void feedInVain(ExecCmd cmd) {
  std::signal(SIGPIPE, SIG_IGN);
  cmd.setInput(MEGABYTE);
  cmd.exec();
}

bool hasChildren() {
  return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

/// Sets a resource limit of this process and returns the old one.
rlim_t setLimit(__rlimit_resource_t resource, rlim_t value) {
  rlimit limit;
  EXPECT_EQ(getrlimit(resource, &limit), 0);
  std::swap(limit.rlim_cur, value);
  EXPECT_EQ(setrlimit(resource, &limit), 0);
  return value;
}

class ScopedLimit {
 public:
  ScopedLimit(__rlimit_resource_t resource, rlim_t value)
      : resource_(resource), old_(setLimit(resource, value)) {}
  ~ScopedLimit() { setLimit(resource_, old_); }

 private:
  __rlimit_resource_t resource_;
  rlim_t old_;
};

volatile sig_atomic_t signalsSeen = 0;

}  // namespace

TEST(ExecCmdTest, YieldsTheExitStatus) {
  for (const int status : {0, 1, 3, 127, 255}) {
    ExecCmd cmd = shell("exit " + std::to_string(status));
    EXPECT_EQ(cmd.exec(std::nothrow), status);
    EXPECT_EQ(cmd.status(), status);
  }
}

TEST(ExecCmdTest, YieldsMinusOneForAProgramThatASignalEnded) {
  for (const char* signal : {"KILL", "TERM", "ABRT"}) {
    EXPECT_EQ(shell(std::string("kill -") + signal + " $$").exec(std::nothrow), -1);
  }
}

TEST(ExecCmdTest, YieldsMinusOneForAProgramThatCannotBeWaitedFor) {
  inChild([] {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(shell("exit 0").exec(std::nothrow), -1);
  });
}

TEST(ExecCmdTest, KnowsWhetherItHasRun) {
  ExecCmd cmd = shell("echo out; echo err >&2; exit 7");
  EXPECT_FALSE(cmd.executed());
  EXPECT_FALSE(cmd.errorRecorded());
  EXPECT_EQ(cmd.exec(std::nothrow), 7);
  EXPECT_TRUE(cmd.executed());
  EXPECT_TRUE(cmd.errorRecorded());
  EXPECT_EQ(cmd.savedErrno(), errno);
  EXPECT_EQ(cmd.output(), "out\n");
  EXPECT_EQ(cmd.errorOutput(), "err\n");
}

TEST(ExecCmdTest, StartsAnewInASecondRun) {
  ExecCmd cmd = shell("cat; echo err >&2");
  cmd.setInput("in");
  cmd.exec();
  cmd.exec();
  EXPECT_EQ(cmd.output(), "in");
  EXPECT_EQ(cmd.errorOutput(), "err\n");
}

TEST(ExecCmdTest, ReportsAFailureWithTheCommandLineTheStatusAndWhatWentThroughThePipes) {
  EXPECT_EQ(failureOf(shell("exit 3")), "Execution of sh -c exit\\ 3 failed with return code 3.\n");
  EXPECT_EQ(failureOf(shell("kill -9 $$")),
            "Execution of sh -c kill\\ -9\\ \\$\\$ failed with return code -1.\n");
  EXPECT_EQ(failureOf(ExecCmd("false", {"false", "", "%1%"})),
            "Execution of false '' %1% failed with return code 1.\n");

  ExecCmd lines = shell("cat >&2; echo out; exit 4");
  lines.setInput("in\n");
  EXPECT_EQ(
      failureOf(lines),
      "Execution of sh -c cat\\ \\>\\&2\\;\\ echo\\ out\\;\\ exit\\ 4 failed with return code 4.\n"
      "Stdin is\nin\nStdout is\nout\nStderr is\nin\n");

  ExecCmd noLineEnds("grep", {"grep", "-c", "x"});
  noLineEnds.setInput("in");
  EXPECT_EQ(failureOf(noLineEnds),
            "Execution of grep -c x failed with return code 1.\nStdin is\nin\nStdout is\n0\n");

  EXPECT_EQ(
      failureOf(shell("printf %s err% >&2; exit 5")),
      "Execution of sh -c printf\\ %s\\ err%\\ \\>\\&2\\;\\ exit\\ 5 failed with return code 5.\n"
      "Stderr is\nerr%\n");
}

TEST(ExecCmdTest, ReportsSuccessByNotThrowing) {
  ExecCmd cmd = shell("echo err >&2");
  EXPECT_NO_THROW(cmd.exec());
  EXPECT_EQ(cmd.errorOutput(), "err\n");
}

TEST(ExecCmdTest, SumsUpARunForAPerson) {
  ExecCmd silent = shell("exit 2");
  silent.exec(std::nothrow);
  EXPECT_EQ(getReport(silent),
            "The return code was 2\nNo output on STDOUT were performed by the utility"
            "\nNo output on STDERR were performed by the utility");
  ExecCmd talking = shell("echo out; printf err >&2");
  talking.exec();
  EXPECT_EQ(getReport(talking),
            "The return code was 0\nThe output on STDOUT was: \nout\n"
            "\nThe output on STDERR was: \nerr");
}

TEST(ExecCmdTest, CarriesMoreThanAPipeHoldsInAllThreeDirectionsAtOnce) {
  ExecCmd cmd = shell("tee /dev/stderr");
  cmd.setInput(MEGABYTE);
  EXPECT_EQ(cmd.exec(std::nothrow), 0);
  EXPECT_EQ(cmd.output(), MEGABYTE);
  EXPECT_EQ(cmd.errorOutput(), MEGABYTE);
}

TEST(ExecCmdTest, CollectsTheOutputOfAProgramThatTalksBeforeItListens) {
  ExecCmd cmd = shell("seq 200000; seq 200000 >&2; wc -c");
  cmd.setInput(MEGABYTE);
  EXPECT_EQ(cmd.exec(std::nothrow), 0);
  EXPECT_THAT(cmd.output(),
              testing::EndsWith("\n200000\n" + std::to_string(MEGABYTE.size()) + "\n"));
  EXPECT_THAT(cmd.errorOutput(), testing::EndsWith("\n200000\n"));
}

TEST(ExecCmdTest, CarriesEveryByteValue) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  ExecCmd cmd("cat", {"cat"});
  cmd.setInput(bytes);
  EXPECT_EQ(outputOf(cmd), bytes);
}

TEST(ExecCmdTest, GivesAProgramWithoutInputTheEndOfItAtOnce) {
  EXPECT_EQ(outputOf(ExecCmd("wc", {"wc", "-c"})), "0\n");
}

TEST(ExecCmdTest, IsNotDisturbedBySignals) {
  inChild([] {
    struct sigaction action {};
    action.sa_handler = [](int) { signalsSeen = 1; };
    sigaction(SIGUSR1, &action, nullptr);
    ExecCmd cmd = shell("for i in $(seq 200); do kill -USR1 $PPID; echo $i; done; wc -c");
    cmd.setInput(MEGABYTE);
    EXPECT_THAT(outputOf(cmd),
                testing::EndsWith("\n200\n" + std::to_string(MEGABYTE.size()) + "\n"));
    EXPECT_EQ(signalsSeen, 1);
  });
}

TEST(ExecCmdTest, RaisesASystemErrorForInputThatNobodyReads) {
  inChild([] {
    EXPECT_EQ(whatOf<SystemError>([] { feedInVain(shell("exit 0")); }),
              "writeToString failed: Broken pipe");
  });
}

TEST(ExecCmdTest, LeavesNoChildBehindWhenFeedingItFails) {
  for (const char* script : {"exit 0", "exec <&-; exec tail -f /dev/null"}) {
    SCOPED_TRACE(script);
    inChild([&] {
      EXPECT_THROW(feedInVain(shell(script)), SystemError);
      EXPECT_FALSE(hasChildren());
    });
  }
}

TEST(ExecCmdDeathTest, EndsTheProcessWhenARunThatMustNotThrowDoes) {
  EXPECT_EXIT(
      {
        std::signal(SIGPIPE, SIG_IGN);
        ExecCmd cmd("true", {"true"});
        cmd.setInput(MEGABYTE);
        cmd.exec(std::nothrow);
      },
      testing::KilledBySignal(SIGABRT), "writeToString failed");
}

TEST(ExecCmdTest, RaisesASystemErrorWhenItCannotFork) {
  inChild([] {
    becomePlainUser();
    const ScopedLimit limit(RLIMIT_NPROC, 0);
    EXPECT_EQ(whatOf<ExSystemError<EAGAIN>>([] { shell("true").exec(); }),
              "forkExecvPipes: fork() failed: Resource temporarily unavailable");
  });
}

TEST(ExecCmdTest, RefusesDescriptorsThatSelectCannotWaitFor) {
  inChild([] {
    const ScopedLimit limit(RLIMIT_NOFILE, 4096);
    while (dup(STDERR_FILENO) < FD_SETSIZE) {
    }
    EXPECT_EQ(whatOf<SystemError>([] { shell("true").exec(); }),
              "forkExecvGetOutErr: select() failed: Bad file descriptor");
  });
}

TEST(ExecCmdTest, OnlyLogsPipesThatItCannotMake) {
  SystemLog systemLog;
  inChild([] {
    // Run a command once before: the sanitizers need descriptors when they first see a type, and
    // again in the child, which raises an exception.
    ExecCmd cmd("true", {"true"});
    cmd.exec();
    pthread_atfork(nullptr, nullptr, [] { setLimit(RLIMIT_NOFILE, 1024); });
    const CapturedStream errors(STDERR_FILENO);
    {
      // One descriptor is left, for the line in the system log; a pipe needs two.
      const int freeDescriptor = UniqueFd(dup(STDERR_FILENO)).get();
      const ScopedLimit limit(RLIMIT_NOFILE, static_cast<rlim_t>(freeDescriptor) + 1);
      cmd.exec(std::nothrow);
    }
    EXPECT_NE(cmd.status(), 0);
    EXPECT_EQ(errors.text(), "Uncaught std::exception: dup2Custom failed: Bad file descriptor\n");
  });
  const auto pipeFailed = testing::StartsWith("forkExecvGetOutErr: pipe() failed");
  const auto fcntlFailed = testing::StartsWith("forkExecvGetOutErr: fcntl(O_NONBLOCK) failed");
  EXPECT_THAT(systemLog.lines(), testing::ElementsAre(pipeFailed, pipeFailed, pipeFailed,
                                                      fcntlFailed, fcntlFailed, fcntlFailed));
}
