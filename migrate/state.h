#pragma once

#include <array>
#include <string>
#include <vector>

#include "migrate/settings.h"
#include "migrate/step.h"

namespace migrate {

/// How far a step is. RUNNING without a process means that the run was interrupted.
enum class Progress { WAITING, RUNNING, DONE, FAILED, STOPPED };

const char* nameOf(Progress progress);

struct StepRecord {
  Progress progress = Progress::WAITING;
  /// UTC, as in "2026-11-21T10:00:00Z"; empty while it has not happened.
  std::string started;
  std::string ended;
  /// Of the last run; meaningful once it has ended.
  int exitCode = 0;
  /// Why it failed.
  std::string reason;
};

/// The settings and the progress of a migration, kept in the document "migrate/state.xml" of the
/// session directory.
///
/// Root sends a password to the host that it names. So the document and its directory belong to
/// root alone, and the service account may only read them.
class State {
 public:
  /// The directory of this program in a session directory.
  static std::string directoryIn(const std::string& session);
  static std::string documentIn(const std::string& session);

  /// A migration that has not begun. Its directory on the source host gets a random name, which no
  /// other migration has.
  static State fresh();
  /// Throws MigrateImpossible when the document is not what this program writes, or when
  /// another account may write it.
  static State load(const std::string& session);
  /// True when the session has such a document.
  static bool exists(const std::string& session);

  /// Replaces the document in one step, with the bytes on the disk. Throws
  /// MigrateImpossible.
  void save(const std::string& session) const;

  Settings settings;

  const StepRecord& of(Step step) const { return steps_[indexOf(step)]; }
  StepRecord& of(Step step) { return steps_[indexOf(step)]; }
  bool isDone(Step step) const { return of(step).progress == Progress::DONE; }
  std::vector<Step> doneSteps() const;

  /// The steps that the settings ask for, in order.
  std::vector<Step> plan() const;
  /// True when all of them are done.
  bool isFinished() const;

  /// Resets `step` and all later ones to WAITING. If these need the agent and it has been removed,
  /// resets its deployment, too.
  void goBackTo(Step step);

  /// The agent's own directory on the source host.
  std::string agentDir() const;

 private:
  std::array<StepRecord, ALL_STEPS.size()> steps_;
  std::string agentDirectoryName_;
};

}  // namespace migrate
