#pragma once

#include <functional>
#include <string>

#include "commons/cmd_line.h"
#include "migrate/passwords.h"
#include "migrate/signals.h"

namespace migrate {

/// sondrel's exit status when an action failed for another reason than the connection.
constexpr int EXIT_OF_FAILED_ACTION = 2;

/// How a run of sondrel ended.
struct RunOutcome {
  enum Kind {
    DONE,
    /// Stopped by a signal before it had done its work. Its exit status is 0 as for DONE if the
    /// stop was a clean one: a line of its standard output that begins with TERMINATION_TEXT tells
    /// the two apart.
    STOPPED,
    FAILED
  };
  Kind kind;
  /// 128 and the signal's number where a signal ended it.
  int exitCode;
  /// Why it failed, if sondrel itself does not say it.
  std::string reason = {};
};

/// One run of sondrel, as a child of this process.
struct SondrelRun {
  std::string program;
  ArgList arguments;
  const Passwords& passwords;
  /// The key to log in by; empty to leave that to the environment of this process.
  std::string identity;
  /// The jump host; empty to leave that to the environment, too.
  std::string jump;
  /// True to ask an agent that supports them for increments.
  bool wantsIncrements;
  /// The descriptor of the session's lock. It stays open in the child, so that the lock lasts as
  /// long as the child.
  int lockDescriptor;
  /// Gets what the child writes to its standard error.
  std::function<void(const std::string&)> onError;
  /// Gets what it writes to standard output, a line at a time, without its end: the text of a
  /// stop, the answer of an action that prints one, and a log that is configured to go there.
  std::function<void(const std::string&)> onOutput;
  /// Called at least every `tickMs` milliseconds while it runs; never for -1.
  std::function<void()> onTick;
  int tickMs = -1;
};

/// Runs sondrel until it ends. The child has no input, gets the passwords in its environment and
/// nowhere else, and is ended when this process ends. Each termination signal of this process is
/// passed on to it. Throws SystemError when no child can be started.
RunOutcome runSondrel(const SondrelRun& run, Signals& signals);

}  // namespace migrate
