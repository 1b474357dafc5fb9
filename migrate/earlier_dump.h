#pragma once

#include <chrono>
#include <string>

#include "migrate/sondrel_run.h"
#include "migrate/step.h"

namespace migrate {

/// True when a step failed because a dump that an earlier run started still runs in the agent's
/// directory. An agent goes on when its connection is lost. Until it ends it refuses a second dump,
/// with the text that sondrel-agent(7) documents.
bool isBlockedByEarlierDump(const std::string& session, Step step, const RunOutcome& outcome);

/// Follows such a dump by the dumping status of its agent.
class EarlierDump {
 public:
  using Clock = std::chrono::steady_clock;

  /// How long a status may stay unchanged before the agent itself is asked again.
  static constexpr std::chrono::seconds LONGEST_SILENCE{15};

  explicit EarlierDump(Clock::time_point now) : lastChange_(now) {}

  /// Notes the status that was fetched at `now`; empty when the agent has none.
  void note(const std::string& status, Clock::time_point now);
  /// True when the status says that the dump is over.
  bool saysItsEnd() const;
  /// True when the status has not changed for LONGEST_SILENCE. The dump may be over then: one that
  /// was killed leaves its status as it was.
  bool isSilent(Clock::time_point now) const { return now - lastChange_ >= LONGEST_SILENCE; }

  /// Writes the status to the file in the session directory from which progress is shown. Does
  /// nothing without a status. Throws what AtomicReplacement throws, and MigrateImpossible when the
  /// file cannot be written.
  void publish(const std::string& session) const;

 private:
  std::string status_;
  Clock::time_point lastChange_;
};

}  // namespace migrate
