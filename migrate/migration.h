#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "migrate/console.h"
#include "migrate/exit_codes.h"
#include "migrate/migration_report.h"
#include "migrate/options.h"
#include "migrate/passwords.h"
#include "migrate/session_lock.h"
#include "migrate/signals.h"
#include "migrate/sondrel_command.h"
#include "migrate/sondrel_run.h"
#include "migrate/state.h"

namespace migrate {

/// Receives a text piece by piece, as it arrives.
using TextSink = std::function<void(const std::string&)>;

/// One migration: begins it in its session directory, or goes on with it there.
class Migration {
 public:
  /// What is passed by reference must outlive the migration.
  Migration(const Request& request, Passwords environment, Console& console, Signals& signals);

  /// Makes the steps that are not done yet, up to the first that fails; returns the exit
  /// code. Throws MigrateBadSettings, MigrateImpossible, MigrateSessionBusy, Interrupted,
  /// UnableToCreateSession.
  int execute();

 private:
  void prepareSession();
  void takeLock(const std::string& directory);
  void loadState();
  void takeSettings();
  void planStepToGoBackTo(Settings& settings) const;
  void planRemoval(Settings& settings) const;
  void planEndOfAgent(Settings& settings) const;
  bool needsSourceHost() const;
  int makeSteps();
  int makeStep(Step step);
  RunOutcome runStep(Step step);
  RunOutcome runAction(Step step);
  bool askForWhatIsWanted(Step step, RunOutcome& outcome);
  RunOutcome runRemoval();
  RunOutcome runRestore(Step step);
  std::optional<RunOutcome> waitForEarlierDump(Step step);
  RunOutcome fetchDumpingStatus(Step step, const TextSink& onError, std::string& status);
  bool pause(Step step, std::chrono::milliseconds time);
  RunOutcome run(Step step, const ArgList& arguments, const TextSink& onError,
                 const TextSink& onOutput);
  void showProgress(Step step);
  void recordBegin(Step step);
  void recordEnd(Step step, const RunOutcome& outcome);

  const Request& request_;
  Passwords environment_;
  Console& console_;
  Signals& signals_;
  std::optional<SessionLock> lock_;
  std::optional<Passwords> passwords_;
  State state_ = State::fresh();
  MigrationReport report_;
  std::string program_;
  /// Empty when no restore is requested.
  std::string restoreProgram_;
};

}  // namespace migrate
