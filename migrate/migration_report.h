#pragma once

#include <string>
#include <vector>

#include "migrate/console.h"
#include "migrate/sondrel_run.h"
#include "migrate/state.h"

namespace migrate {

/// The errors of a step's run, the outermost first; empty when it has recorded none.
std::vector<std::string> causesOf(const std::string& session, Step step, const RunOutcome& outcome);

/// The texts in one line.
std::string joined(const std::vector<std::string>& texts);

/// Reports the steps and the end of a migration on the console.
class MigrationReport {
 public:
  /// `session` is the session directory. `state` and `console` must outlive it.
  MigrationReport(std::string session, const State& state, Console& console);

  void introduce();
  void stepIsDone(Step step);
  void stepBegins(Step step);

  /// Reports how a step has ended; `state` must have recorded that. Returns the exit code that this
  /// means for the whole migration; `requestedSignal` is the signal that stopped it, 0 for none.
  int stepEnded(Step step, const RunOutcome& outcome, int requestedSignal);

  /// Reports where the result is, what is missing from it and what can be done next. Returns the
  /// exit code.
  int finished(const std::string& introduction);

 private:
  void stepFailed(Step step, const RunOutcome& outcome);
  void explainKeptAgent();
  void listProblems();
  std::string remedyFor(Step step, const std::string& causes) const;
  std::string purposeOf(Step step) const;

  std::string session_;
  const State& state_;
  Console& console_;
};

}  // namespace migrate
