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
  /// The descriptors to read passwords from.
  std::optional<int> passwordFd;
  std::optional<int> sudoPasswordFd;
  std::optional<int> keyPasswordFd;
  /// The step to make again, with all that follow it.
  std::optional<Step> from;
  /// Fetch whole archives even where increments would be enough.
  bool full = false;
};

/// Parses the command line. Throws MigrateBadSettings. No error text repeats a value, because a
/// user may have put a password in the wrong place.
Request parseOptions(int argc, char** argv);

std::string usageText();

}  // namespace migrate
