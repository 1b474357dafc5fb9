#pragma once

#include <string>

#include "commons/cmd_line.h"
#include "migrate/settings.h"
#include "migrate/step.h"

namespace migrate {

/// The sondrel in the directory of this program, or else the first one in PATH. Throws
/// MigrateImpossible when there is none.
std::string findSondrel();

/// The sondrel-restore in the directory of this program, or else the first one in PATH. Throws
/// MigrateImpossible when there is none.
std::string findSondrelRestore();

/// The directories of one migration.
struct Places {
  std::string session;
  /// The agent's own directory on the source host.
  std::string agentDir;
};

/// The command line of the program that makes a step, the program's name first. It has no
/// passwords: those go into the program's environment.
ArgList commandOf(Step step, const Settings& settings, const Places& places);

/// The command line that prints the dumping status of the agent.
ArgList dumpingStatusCommand(const Settings& settings, const Places& places);

/// The directory on this host that the content files go to.
std::string contentDirOf(const Settings& settings, const std::string& session);

}  // namespace migrate
