#include "commons/forkexec.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "commons/ExSystemError.h"
#include "commons/child_process.h"
#include "commons/unique_fd.h"
#include "hostlib/messlog.h"

namespace {

constexpr std::size_t READ_CHUNK_BYTES = 4096;

/// A pipe, or two closed ends when none can be made: the child then fails on them and reports that.
Pipe openPipe() {
  Pipe pipe = makePipe();
  if (!pipe.readEnd) {
    messlog2(std::string("forkExecvGetOutErr: pipe() failed: ") + std::strerror(errno));
  }
  return pipe;
}

void keepFromBlocking(const UniqueFd& fd) {
  if (!setNonBlocking(fd)) {
    messlog2(std::string("forkExecvGetOutErr: fcntl(O_NONBLOCK) failed: ") + std::strerror(errno));
  }
}

/// Writes what the pipe takes and drops it from the front of `text`; closes the
/// pipe when nothing is left, so that the child sees the end of its input.
void writeFromString(UniqueFd& fd, std::string& text) {
  while (!text.empty()) {
    const ssize_t written = write(fd.get(), text.data(), text.size());
    if (written >= 0) {
      text.erase(0, static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      throwSystemError("writeToString failed", errno);
    }
  }
  fd.close();
}

/// Appends what the pipe holds to `text`; closes the pipe at the end of file.
void readToString(UniqueFd& fd, std::string& text) {
  std::array<char, READ_CHUNK_BYTES> chunk;
  for (;;) {
    const ssize_t got = read(fd.get(), chunk.data(), chunk.size());
    if (got > 0) {
      text.append(chunk.data(), static_cast<std::size_t>(got));
    } else if (got == 0) {
      fd.close();
      return;
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      throwSystemError("readToString failed", errno);
    }
  }
}

/// The descriptors that one round of pumpPipes waits for.
class SelectSet {
 public:
  SelectSet() { FD_ZERO(&set_); }

  void add(const UniqueFd& fd) {
    if (!fd) return;
    // A larger number would be written behind the end of the set.
    if (fd.get() >= FD_SETSIZE) throwSystemError("forkExecvGetOutErr: select() failed", EBADF);
    FD_SET(fd.get(), &set_);
    largest_ = std::max(largest_, fd.get());
  }
  bool has(const UniqueFd& fd) const { return fd && FD_ISSET(fd.get(), &set_); }
  fd_set* set() { return &set_; }
  int largest() const { return largest_; }

 private:
  fd_set set_;
  int largest_ = -1;
};

/// Serves all three pipes until each is closed. So a child that writes much before it has read all
/// its input blocks neither side.
void pumpPipes(UniqueFd& in, std::string& input, UniqueFd& out, std::string& output, UniqueFd& err,
               std::string& errorOutput) {
  while (in || out || err) {
    SelectSet readable;
    SelectSet writable;
    readable.add(out);
    readable.add(err);
    writable.add(in);
    const int largest = std::max(readable.largest(), writable.largest());
    if (select(largest + 1, readable.set(), writable.set(), nullptr, nullptr) < 0) {
      if (errno == EINTR) continue;
      throwSystemError("forkExecvGetOutErr: select() failed", errno);
    }
    if (writable.has(in)) writeFromString(in, input);
    if (readable.has(out)) readToString(out, output);
    if (readable.has(err)) readToString(err, errorOutput);
  }
}

int waitForExitCode(pid_t child) {
  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// --- The child's side, between fork and exec ---

void dup2Custom(int from, int to) {
  if (dup2(from, to) < 0) throwSystemError("dup2Custom failed", errno);
}

void wireStandardStreams(int in, int out, int err) {
  // First move them away from 0, 1 and 2: they may have such a number when this process was started
  // with closed standard streams.
  const int safeIn = fcntl(in, F_DUPFD, 3);
  const int safeOut = fcntl(out, F_DUPFD, 3);
  const int safeErr = fcntl(err, F_DUPFD, 3);
  dup2Custom(safeErr, STDERR_FILENO);
  dup2Custom(safeOut, STDOUT_FILENO);
  dup2Custom(safeIn, STDIN_FILENO);
}

/// The program must not inherit what this process ignores or blocks for itself.
void resetSignals() {
  for (int number = 1; number < NSIG; ++number) signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

int p_setuid(const passwd& account) {
  if (initgroups(account.pw_name, account.pw_gid) != 0) return -1;
  if (setgid(account.pw_gid) != 0) return -1;
  return setuid(account.pw_uid);
}

void becomeAccount(const std::string& account) {
  if (account.empty()) return;
  const passwd* entry = getpwnam(account.c_str());
  if (entry && p_setuid(*entry) != 0) {
    throwSystemError("forkExecvPipes: p_setuid() to '" + account + "' failed", errno);
  }
}

void extendEnvironment(const Environment& environment) {
  for (const auto& [name, value] : environment) {
    if (setenv(name.c_str(), value.c_str(), 1) != 0) {
      throwSystemError("forkExecvPipes: setenv() falied", errno);
    }
  }
}

void execute(const std::string& program, const ArgList& args) {
  execvp(program.c_str(), pointersTo(args).data());
  messlog2(std::string("forkExecvPipes: execv() failed: ") + std::strerror(errno) + "\n");
  // Callers rely on this text for a program that cannot be executed. The real reason is in the
  // system log.
  throwSystemError("forkExecvGetOutErr: select() failed", EBADF);
}

[[noreturn]] void runChild(int in, int out, int err, const std::string& program,
                           const ArgList& args, const std::string& account,
                           const Environment& environment) {
  try {
    wireStandardStreams(in, out, err);
    closeDescriptorsFrom(STDERR_FILENO + 1);
    resetSignals();
    becomeAccount(account);
    extendEnvironment(environment);
    execute(program, args);
  } catch (const std::exception& e) {
    const std::string report = std::string("Uncaught std::exception: ") + e.what() + "\n";
    // A failure of this write cannot be reported; the exit status shows that the start failed.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, report.data(), report.size());
  }
  // _exit, not exit: the child is a copy of the parent and must not flush the parent's buffers.
  _exit(EXIT_FAILURE);
}

}  // namespace

int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output, std::string& errorOutput,
                                const std::string& program, const ArgList& args,
                                const std::string& account, const Environment& environment) {
  Pipe in = openPipe();
  Pipe out = openPipe();
  Pipe err = openPipe();
  keepFromBlocking(in.writeEnd);
  keepFromBlocking(out.readEnd);
  keepFromBlocking(err.readEnd);
  const pid_t child = forkExecvPipes(in.readEnd.get(), out.writeEnd.get(), err.writeEnd.get(),
                                     program, args, account, environment);
  in.readEnd.close();
  out.writeEnd.close();
  err.writeEnd.close();
  try {
    pumpPipes(in.writeEnd, input, out.readEnd, output, err.readEnd, errorOutput);
  } catch (const SystemError&) {
    // The child has lost its input or its readers. It must not go on as if all were well, nor stay
    // as a zombie.
    kill(child, SIGKILL);
    waitForExitCode(child);
    throw;
  }
  return waitForExitCode(child);
}

pid_t forkExecvPipes(int in, int out, int err, const std::string& program, const ArgList& args,
                     const std::string& account, const Environment& environment) {
  const pid_t child = fork();
  if (child < 0) throwSystemError("forkExecvPipes: fork() failed", errno);
  if (child == 0) runChild(in, out, err, program, args, account, environment);
  return child;
}
