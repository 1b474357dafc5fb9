#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "commons/ExecCmd.h"
#include "exec_cmd_support.h"
#include "hostlib/env_password.h"
#include "support.h"

/// Tests of the process that runs the program of an ExecCmd: its arguments, environment, account,
/// signals and descriptors.

namespace {

/// What the child reported instead of running its program.
std::string reportOf(ExecCmd cmd) {
  EXPECT_THAT(cmd.exec(std::nothrow), testing::Gt(0));
  EXPECT_EQ(cmd.output(), "");
  return cmd.errorOutput();
}

}  // namespace

TEST(ExecCmdTest, HandsOverItsArgumentsUnchanged) {
  ExecCmd cmd("printf");
  cmd << "printf"
      << "<%s>"
      << ""
      << "a b"
      << "$HOME"
      << "two\nlines"
      << "";
  EXPECT_EQ(outputOf(cmd), "<><a b><$HOME><two\nlines><>");
}

TEST(ExecCmdTest, ShowsTheProgramTheNameOfItsFirstArgument) {
  EXPECT_EQ(outputOf(ExecCmd("sh", {"another name", "-c", "echo \"$0\""})), "another name\n");
}

TEST(ExecCmdTest, AddsToTheEnvironmentOfTheProgramOnly) {
  ExecCmd cmd = shell("echo \"$UNIT_NEW,$UNIT_OLD,$UNIT_KEPT\"");
  setenv("UNIT_OLD", "old", 1);
  setenv("UNIT_KEPT", "kept", 1);
  cmd.setEnv("UNIT_NEW", "first");
  cmd.setEnv("UNIT_NEW", "second");
  cmd.setEnv("UNIT_OLD", "replaced");
  EXPECT_EQ(outputOf(cmd), "second,replaced,kept\n");
  EXPECT_EQ(getenv("UNIT_NEW"), nullptr);
  EXPECT_STREQ(getenv("UNIT_OLD"), "old");
}

TEST(ExecCmdTest, RunsAsTheNamedAccountWithItsGroupsOnly) {
  inChild([] {
    const gid_t mine[] = {0, 4};
    ASSERT_EQ(setgroups(2, mine), 0);
    ExecCmd cmd = shell("id -u; id -g; id -G");
    cmd.setRunAs("plain");
    EXPECT_EQ(outputOf(cmd), "20001\n20001\n20001\n");
  });
}

TEST(ExecCmdTest, RunsAsThePresentUserWhenTheNamedAccountDoesNotExist) {
  for (const char* account : {"", "no-such-account"}) {
    ExecCmd cmd("id", {"id", "-u"});
    cmd.setRunAs(account);
    EXPECT_EQ(outputOf(cmd), "0\n");
  }
}

TEST(ExecCmdTest, ReportsAnAccountThatItCannotBecome) {
  inChild([] {
    becomePlainUser();
    ExecCmd cmd("id", {"id"});
    cmd.setRunAs("qrvadm");
    EXPECT_EQ(reportOf(cmd),
              "Uncaught std::exception: forkExecvPipes: p_setuid() to 'qrvadm' failed: "
              "Operation not permitted\n");
  });
}

TEST(ExecCmdTest, ReportsAnEnvironmentVariableThatCannotBeSet) {
  ExecCmd cmd("id", {"id"});
  cmd.setEnv("A=B", "value");
  EXPECT_EQ(reportOf(cmd),
            "Uncaught std::exception: forkExecvPipes: setenv() falied: Invalid argument\n");
}

TEST(ExecCmdTest, ReportsAProgramThatCannotBeExecuted) {
  const ScopedTempDir dir;
  writeFile(dir / "not-executable", "#!/bin/sh\n");
  const std::pair<std::string, std::string> programs[] = {
      {"no-such-program-anywhere", "No such file or directory"},
      {dir / "not-executable", "Permission denied"},
  };
  SystemLog systemLog;
  for (const auto& [program, reason] : programs) {
    SCOPED_TRACE(program);
    EXPECT_EQ(
        reportOf(ExecCmd(program, {program})),
        "Uncaught std::exception: forkExecvGetOutErr: select() failed: Bad file descriptor\n");
    EXPECT_THAT(systemLog.lines(),
                testing::ElementsAre("forkExecvPipes: execv() failed: " + reason));
  }
}

TEST(ExecCmdTest, GivesTheProgramDefaultSignalDispositionsAndAnEmptyMask) {
  inChild([] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    for (const int number : {SIGPIPE, SIGINT, SIGQUIT, SIGHUP, SIGUSR1}) {
      std::signal(number, SIG_IGN);
    }
    // Two real-time signals belong to the C library. The program that starts the tests may ignore
    // them (make does), and no process can change that.
    EXPECT_THAT(outputOf(ExecCmd("grep", {"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"})),
                testing::AnyOf("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n",
                               "SigBlk:\t0000000000000000\nSigIgn:\t0000000180000000\n"));
  });
}

TEST(ExecCmdTest, HandsDownNoDescriptorButTheThreeStandardOnes) {
  const UniqueFd low(open("/dev/null", O_RDONLY));
  const UniqueFd high(fcntl(low.get(), F_DUPFD, 200));
  ASSERT_TRUE(high);
  // ls itself has opened its directory as 3.
  EXPECT_EQ(outputOf(ExecCmd("ls", {"ls", "/proc/self/fd"})), "0\n1\n2\n3\n");
}

TEST(ExecCmdTest, LeavesNoDescriptorOpen) {
  const std::size_t before = entriesOf("/proc/self/fd").size();
  outputOf(shell("echo out"));
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

TEST(ExecCmdTest, DoesNotHandDownThePassword) {
  IN_FRESH_PROCESS("QRV_PASSWORD=secret");
  EXPECT_STREQ(get_env_noncrypted_password(), "secret");
  EXPECT_EQ(outputOf(shell("echo ${QRV_PASSWORD-unset}")), "unset\n");
}

TEST(ExecCmdTest, WorksInAProcessWithoutStandardStreams) {
  inChild([] {
    UniqueFd saved[3];
    for (int fd = 0; fd < 3; ++fd) {
      saved[fd] = UniqueFd(fcntl(fd, F_DUPFD, 10));
      close(fd);
    }
    ExecCmd cmd = shell("cat; echo err >&2");
    cmd.setInput("in");
    const int status = cmd.exec(std::nothrow);
    for (int fd = 0; fd < 3; ++fd) dup2(saved[fd].get(), fd);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(cmd.output(), "in");
    EXPECT_EQ(cmd.errorOutput(), "err\n");
  });
}
