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
    /// Stopped on request before it had done its work. Its exit status is 0 then, too: a line of
    /// its standard output that begins with TERMINATION_TEXT tells the two apart.
    STOPPED,
    FAILED
  };
  Kind kind;
  /// 128 and the signal's number where a signal ended it.
  int exitCode;
  /// Why it failed, where sondrel itself does not say it.
  std::string reason = {};
};

/// One run of sondrel, as a child of this process.
struct SondrelRun {
  std::string program;
  ArgList arguments;
  const Passwords& passwords;
  /// The key to log in by; empty to leave that to the environment of this process.
  std::string identity;
  /// The host that the way leads through; empty to leave that to the environment, too.
  std::string jump;
  /// Whether an agent that can is asked for increments.
  bool wantsIncrements;
  /// Stays open in the child, so that a lock lasts as long as it does.
  int lockDescriptor;
  /// Gets what the child writes to its standard error.
  std::function<void(const std::string&)> onError;
  /// Gets what it writes to standard output, a line at a time, without its end: the text of a
  /// stop, the answer of an action that prints one, and a log that is configured to go there.
  std::function<void(const std::string&)> onOutput;
  /// Called now and then while it runs; every `tickMs`, or not at all for -1.
  std::function<void()> onTick;
  int tickMs = -1;
};

/// Runs it to its end. The child reads nothing, has the passwords in its environment and
/// nowhere else, and ends with this process. Each signal that asks this process for an end is
/// passed on. Throws SystemError when there can be no child.
RunOutcome runSondrel(const SondrelRun& run, Signals& signals);

}  // namespace migrate
