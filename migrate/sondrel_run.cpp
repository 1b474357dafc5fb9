#include "migrate/sondrel_run.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "commons/ExSystemError.h"
#include "commons/ProgramTerminatedException.h"
#include "commons/child_process.h"
#include "commons/unique_fd.h"

namespace migrate {

namespace {

constexpr int CANNOT_EXECUTE = 127;
constexpr int FIRST_STATUS_OF_A_SIGNAL = 128;
/// Asks sondrel for the sizes that the line of progress needs.
const char* const LISTED_SIZES_VARIABLE = "QRV_LISTED_SIZES";
/// Ask sondrel to transfer small files in batches. A value that is set already stays.
const std::array<const char*, 2> BATCH_VARIABLES = {"SONDREL_CONTENT_BATCH",
                                                    "SONDREL_DEPLOY_BATCH"};
/// Asks the agent for archives of what has changed since those that were fetched.
const char* const INCREMENTS_VARIABLE = "SONDREL_DUMP_INCREMENTS";
/// Tells sondrel the key to log in by.
const char* const IDENTITY_VARIABLE = "SONDREL_IDENTITY";
/// Tells sondrel the jump host.
const char* const JUMP_VARIABLE = "SONDREL_JUMP";

/// A pipe whose write end is for a child. Reading from the other end never blocks.
Pipe openPipe() {
  Pipe pipe = makePipe();
  if (!pipe.readEnd) throwSystemError("pipe", errno);
  if (!setNonBlocking(pipe.readEnd)) throwSystemError("fcntl", errno);
  return pipe;
}

/// A copy of the environment of this process, with the passwords and the key to use. The destructor
/// wipes it.
class ChildEnvironment {
 public:
  explicit ChildEnvironment(const SondrelRun& run) {
    const Passwords& passwords = run.passwords;
    for (char** entry = environ; entry && *entry; ++entry) {
      if (!isVariable(*entry, LOGIN_VARIABLE) && !isVariable(*entry, SUDO_VARIABLE) &&
          !isVariable(*entry, LISTED_SIZES_VARIABLE) && !isVariable(*entry, KEY_VARIABLE) &&
          (run.wantsIncrements || !isVariable(*entry, INCREMENTS_VARIABLE)) &&
          (run.identity.empty() || !isVariable(*entry, IDENTITY_VARIABLE)) &&
          (run.jump.empty() || !isVariable(*entry, JUMP_VARIABLE))) {
        pointers_.push_back(*entry);
      }
    }
    if (passwords.login.isGiven()) add(login_, LOGIN_VARIABLE, passwords.login);
    if (passwords.key.isGiven()) add(key_, KEY_VARIABLE, passwords.key);
    if (passwords.sudo.isGiven()) add(sudo_, SUDO_VARIABLE, passwords.sudo);
    requests_ = {std::string(LISTED_SIZES_VARIABLE) + "=yes"};
    for (const char* variable : BATCH_VARIABLES) {
      if (!std::getenv(variable)) requests_.push_back(std::string(variable) + "=yes");
    }
    if (run.wantsIncrements && !std::getenv(INCREMENTS_VARIABLE)) {
      requests_.push_back(std::string(INCREMENTS_VARIABLE) + "=yes");
    }
    request(IDENTITY_VARIABLE, run.identity);
    request(JUMP_VARIABLE, run.jump);
    for (std::string& request : requests_) pointers_.push_back(request.data());
    pointers_.push_back(nullptr);
  }
  ~ChildEnvironment() {
    explicit_bzero(login_.data(), login_.size());
    explicit_bzero(sudo_.data(), sudo_.size());
    explicit_bzero(key_.data(), key_.size());
  }
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

  char** pointers() { return pointers_.data(); }

 private:
  static bool isVariable(const char* entry, const std::string& name) {
    return std::strncmp(entry, (name + "=").c_str(), name.size() + 1) == 0;
  }
  void request(const std::string& name, const std::string& value) {
    if (!value.empty()) requests_.push_back(name + "=" + value);
  }
  void add(std::string& entry, const std::string& name, const Secret& secret) {
    entry.reserve(name.size() + 1 + secret.reveal().size());
    entry.append(name).append("=").append(secret.reveal());
    pointers_.push_back(entry.data());
  }

  std::string login_;
  std::string sudo_;
  std::string key_;
  std::vector<std::string> requests_;
  std::vector<char*> pointers_;
};

// --- The child's side, between fork and exec ---

bool wireDescriptors(int out, int err, int lock) {
  const int nothing = open("/dev/null", O_RDONLY);
  if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0) return false;
  if (dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) return false;
  // Only the lock stays open, as descriptor 3. It may be 3 already, where dup2 would do nothing and
  // leave it close-on-exec: hence the copy.
  const int spare = fcntl(lock, F_DUPFD, 4);
  if (spare < 0 || dup2(spare, 3) < 0) return false;
  closeDescriptorsFrom(4);
  return true;
}

[[noreturn]] void runChild(const SondrelRun& run, const Signals& signals, int out, int err,
                           pid_t parent, char** arguments, char** environment) {
  // The child ends with its parent: no other process would read its output or record its result.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(CANNOT_EXECUTE);
  signals.prepareChild();
  if (wireDescriptors(out, err, run.lockDescriptor)) {
    execve(run.program.c_str(), arguments, environment);
  }
  const std::string text = run.program + ": " + std::strerror(errno) + "\n";
  // A failure of this write cannot be reported; the exit status shows that the start failed.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  _exit(CANNOT_EXECUTE);
}

// --- This side ---

/// Reads once from a pipe; closes it at its end. Returns what was there.
std::string readSome(UniqueFd& fd) {
  std::array<char, 4096> chunk;
  const ssize_t got = read(fd.get(), chunk.data(), chunk.size());
  if (got > 0) return {chunk.data(), static_cast<std::size_t>(got)};
  if (got == 0 || (errno != EINTR && errno != EAGAIN)) fd.close();
  return {};
}

/// Splits a text that arrives in pieces into lines.
class Lines {
 public:
  /// Calls `take` for each line that is complete now, without its end.
  void add(const std::string& text, const std::function<void(const std::string&)>& take) {
    rest_ += text;
    for (std::string::size_type end; (end = rest_.find('\n')) != std::string::npos;) {
      take(rest_.substr(0, end));
      rest_.erase(0, end + 1);
    }
    // A line without an end must not fill the memory.
    if (rest_.size() > LONGEST_BYTES) finish(take);
  }
  /// Calls `take` for a last line that has no end.
  void finish(const std::function<void(const std::string&)>& take) {
    if (!rest_.empty()) take(std::exchange(rest_, ""));
  }

 private:
  static constexpr std::size_t LONGEST_BYTES = 65536;
  std::string rest_;
};

class Child {
 public:
  Child(const SondrelRun& run, Signals& signals) : run_(run), signals_(signals) {
    Pipe out = openPipe();
    Pipe err = openPipe();
    ChildEnvironment environment(run);
    std::vector<char*> arguments = pointersTo(run.arguments);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throwSystemError("fork", errno);
    if (pid_ == 0) {
      runChild(run, signals, out.writeEnd.get(), err.writeEnd.get(), parent, arguments.data(),
               environment.pointers());
    }
    // Nothing may throw from here on: the destructor would not run, and the child would go on
    // alone.
    out_ = std::move(out.readEnd);
    err_ = std::move(err.readEnd);
  }
  ~Child() {
    if (hasEnded_) return;
    // An exception has been thrown: the child must not go on without its parent.
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Serves the child until it ends. Does not wait for other processes that inherited its pipes.
  void attend() {
    while (!hasEnded_) {
      turn();
      passSignalsOn();
      if (run_.tickMs >= 0) run_.onTick();
      reap();
    }
    // The rest of the child's output.
    while (takeOutput() || takeErrors()) continue;
    lines_.finish([this](const std::string& line) { takeLine(line); });
    // A terminal sends its signals to both processes: one for this process may still be pending.
    signals_.letIn();
  }

  RunOutcome outcome() const {
    if (WIFSIGNALED(status_)) {
      const int number = WTERMSIG(status_);
      // SIGUSR1 kills a sondrel that is not ready for it yet; that is a stop, too.
      const bool asked = number == SIGUSR1 || number == signals_.requested();
      return {asked ? RunOutcome::STOPPED : RunOutcome::FAILED, FIRST_STATUS_OF_A_SIGNAL + number};
    }
    const int code = WEXITSTATUS(status_);
    if (code != 0) return {RunOutcome::FAILED, code};
    return {saidStopped_ ? RunOutcome::STOPPED : RunOutcome::DONE, code};
  }

 private:
  void turn() {
    std::vector<pollfd> waiting;
    for (const UniqueFd* const fd : {&out_, &err_}) {
      if (*fd) waiting.push_back({fd->get(), POLLIN, 0});
    }
    if (signals_.wait(waiting, run_.tickMs) <= 0) return;
    takeOutput();
    takeErrors();
  }

  /// This and takeErrors return false when there was nothing to read.
  bool takeOutput() {
    const std::string text = out_ ? readSome(out_) : "";
    if (text.empty()) return false;
    lines_.add(text, [this](const std::string& line) { takeLine(line); });
    return true;
  }

  void takeLine(const std::string& line) {
    // A log on standard output arrives here, too. It may follow the text on the same line, because
    // the text has no line end.
    if (line.compare(0, std::strlen(TERMINATION_TEXT), TERMINATION_TEXT) == 0) saidStopped_ = true;
    run_.onOutput(line);
  }

  bool takeErrors() {
    const std::string text = err_ ? readSome(err_) : "";
    if (text.empty()) return false;
    run_.onError(text);
    return true;
  }

  void passSignalsOn() {
    for (const int number : signals_.take()) kill(pid_, number);
  }

  void reap() {
    // A SIGCHLD that arrives from now on stays pending, and ends the next wait at once.
    const pid_t reaped = waitpid(pid_, &status_, WNOHANG);
    if (reaped < 0) throwSystemError("waitpid", errno);
    hasEnded_ = reaped == pid_;
  }

  const SondrelRun& run_;
  Signals& signals_;
  pid_t pid_ = -1;
  UniqueFd out_;
  UniqueFd err_;
  Lines lines_;
  bool saidStopped_ = false;
  bool hasEnded_ = false;
  int status_ = 0;
};

}  // namespace

RunOutcome runSondrel(const SondrelRun& run, Signals& signals) {
  Child child(run, signals);
  child.attend();
  return child.outcome();
}

}  // namespace migrate
