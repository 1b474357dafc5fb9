#pragma once

#include <optional>
#include <string>

#include "migrate/settings.h"
#include "migrate/step.h"

namespace migrate {

/// What the command line asks for.
struct Request {
  enum Command { MIGRATE, SHOW_STATUS, HELP, VERSION };

  Command command = MIGRATE;
  /// Absolute.
  std::string sessionPath;
  /// Those of the settings file, overridden by those of the command line.
  Settings settings;
  /// Descriptors that passwords are read from.
  std::optional<int> passwordFd;
  std::optional<int> sudoPasswordFd;
  std::optional<int> keyPasswordFd;
  /// The step that is made again, with all that follow.
  std::optional<Step> from;
  /// Whole archives, where increments would do.
  bool full = false;
};

/// Throws MigrateBadSettings. No error text repeats a value, for a user may have put a
/// password where none belongs.
Request parseOptions(int argc, char** argv);

std::string usageText();

}  // namespace migrate
