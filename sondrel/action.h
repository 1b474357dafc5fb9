#pragma once

#include <signal.h>

#include <boost/shared_ptr.hpp>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "commons/agent_spec.h"
#include "commons/collected_text.h"
#include "commons/formats.h"
#include "sondrel/options.h"
#include "sondrel/progress.h"
#include "transport/ssh-transfer.h"

DECLARE_ERROR_TAG(SudoNotFound,
                  "sudo command not found on the host %1%. You should install sudo to this host or "
                  "supply root password for the migration.");
DECLARE_ERROR_TAG(SudoNotAllowed, "sudo is not allowed for user %1% on host %2%.");

/// A sink for what an action reports to its caller; no caller makes one yet.
class Result;

/// What a remote command wrote to its error output, with passwords masked, for an error's text.
std::string errorTextOf(const CollectedText& err);

/// Builds a remote command line: each word quoted, one blank between words.
class ArgsBuilder {
 public:
  explicit ArgsBuilder(const std::string& firstWord);
  ArgsBuilder& operator<<(const std::string& word);
  const std::string& str() const { return line_; }

 private:
  std::string line_;
};

/// What a run can do on the source host. Owns the one SSH connection of the run,
/// opened when it is needed first.
///
/// The caller sets the configuration, which must outlive the action, and then calls
/// `execute` once. Failures are exceptions; a stop that an operator asked for is a
/// MigrationTerminatedException.
class Action : public Alarm {
 public:
  /// With `createStatus` the action keeps the session's migration status up to date, from now on.
  explicit Action(bool createStatus);
  ~Action() override = default;
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  /// Refreshes the local copy of the dumping status. A failure is ignored, and ends the refreshing.
  void doAlarm() override;
  virtual void setConfig(const config* config) { config_ = config; }
  virtual void setResult(Result* result) { result_ = result; }
  virtual void execute() = 0;

  /// For the alarm's handler: makes the connection, if there is one, call doAlarm.
  void requestAlarm();

 protected:
  /// The connection; made by the first call. Throws what Ssh's constructor throws.
  Ssh& getSsh();

  /// Shows the text of `describe` to a progress observer while the connection is in use. Opens the
  /// connection if there is none. Does nothing and returns null when there is no observer. Throws
  /// as getSsh does.
  std::unique_ptr<ProgressDisplay> showProgress(std::function<std::string()> describe);

  /// Runs a command as the login user in the agent directory; returns its status.
  int execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
               bool quietOutput, bool quietInput);
  int execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);
  /// The same as root: through sudo if the run uses it, else directly, because the login is root
  /// then. Throws what checkSudoPresence throws.
  int execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
               bool quietOutput, bool quietInput);
  int execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);

  /// Tries sudo, once per run. Throws SudoNotFound, SudoNotAllowed.
  void checkSudoPresence();
  /// Gives the remote file to the login user when the run uses sudo. Throws
  /// CantTakeFileOwnership.
  void takeFile(const std::string& path);

  /// A path below the remote agent directory.
  std::string remotePathOf(const std::string& name) const;
  /// The local agent of this run. Throws AgentNotFound.
  boost::shared_ptr<const Agent> getAgent() const;
  /// The words that start the agent's entry point.
  ArgsBuilder agentCommand() const;
  /// Replaces a file of the session directory by one line of text, without a line
  /// end. Throws FileWrite.
  void writeSessionFile(const std::string& name, const std::string& text) const;

  const config& getConfig() const { return *config_; }
  /// Null unless the constructor was told to create it.
  MigrationStatus* status() const { return status_.get(); }

 private:
  bool refreshDumpingStatus();

  std::unique_ptr<Ssh> ssh_;
  const config* config_ = nullptr;
  Result* result_ = nullptr;
  std::unique_ptr<MigrationStatus> status_;
  bool sudoChecked_ = false;
};

/// The handler of SIGALRM while the agent dumps: makes the current action refresh the
/// dumping status, and sets the alarm again.
void update_status(int signalNumber);

/// Blocks SIGALRM, except in the waits that unblock it: anywhere else it would make
/// the SSH library's calls fail.
class AlarmSignalGuard {
 public:
  AlarmSignalGuard();
  ~AlarmSignalGuard();
  AlarmSignalGuard(const AlarmSignalGuard&) = delete;
  AlarmSignalGuard& operator=(const AlarmSignalGuard&) = delete;

 private:
  sigset_t oldMask_;
};

/// Refreshes the dumping status of `action` every five seconds.
class StatusRefreshGuard {
 public:
  explicit StatusRefreshGuard(Action* action);
  /// Does not cancel the alarm: when it goes off it finds no action.
  ~StatusRefreshGuard();
  StatusRefreshGuard(const StatusRefreshGuard&) = delete;
  StatusRefreshGuard& operator=(const StatusRefreshGuard&) = delete;
};
