#pragma once

#include <chrono>
#include <string>

#include "migrate/sondrel_run.h"
#include "migrate/step.h"

namespace migrate {

/// True when a step failed because a dump that an earlier run started is still at work in the
/// agent's directory. An agent goes on when the connection to it is lost, lets no second dump in
/// meanwhile, and says so with the text that sondrel-agent(7) names.
bool isBlockedByEarlierDump(const std::string& session, Step step, const RunOutcome& outcome);

/// What is known of such a dump by the status that its agent shows.
class EarlierDump {
 public:
  using Clock = std::chrono::steady_clock;

  /// How long a status may stay as it is before the agent itself is asked again.
  static constexpr std::chrono::seconds LONGEST_SILENCE{15};

  explicit EarlierDump(Clock::time_point now) : lastChange_(now) {}

  /// Takes the status as it was fetched, empty where the agent has none.
  void note(const std::string& status, Clock::time_point now);
  /// True when the status says that the dump is over.
  bool saysItsEnd() const;
  /// True when nothing has changed for so long that only the agent knows whether it is over: a
  /// dump that was killed leaves its status as it was.
  bool isSilent(Clock::time_point now) const { return now - lastChange_ >= LONGEST_SILENCE; }

  /// Puts the status where that of a running dump lies in the session directory, for whatever
  /// shows progress. Nothing while there is none. Throws what AtomicReplacement throws, and
  /// MigrateImpossible when the file cannot be written.
  void publish(const std::string& session) const;

 private:
  std::string status_;
  Clock::time_point lastChange_;
};

}  // namespace migrate
