#pragma once

#include <string>

#include "migrate/console.h"
#include "migrate/errors.h"

namespace migrate {

/// Sees to it that what a migration fetches, private keys among it, is not given to a group of
/// other accounts. Session directories get the number of the service account's user for their
/// group. Where its own group has another number, this says so on standard error, and goes on
/// only with a session directory that the foreign group cannot enter.
///
/// `session` must exist. Throws MigrateImpossible, with the commands that close the directory,
/// when the group can enter it, and when that cannot be found out.
void refuseForeignGroup(const std::string& session, Console& console);

}  // namespace migrate
