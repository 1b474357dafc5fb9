#include "sondrel/remove_agent.h"

void RemoveAgentAction::execute() {
  const ArgsBuilder line = ArgsBuilder("rm") << "-rf" << getConfig().agent_dir;
  CollectedText out;
  CollectedText err;
  try {
    execRoot(line.str(), out, err, false);
  } catch (const ExTraceable&) {
    // Clean-up must not make a migration fail.
  }
}
