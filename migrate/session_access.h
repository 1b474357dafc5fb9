#pragma once

#include <string>

#include "migrate/console.h"
#include "migrate/errors.h"

namespace migrate {

/// Makes sure that what a migration fetches, private keys included, is not readable for a group of
/// other accounts. The group of a session directory is the number of the service account's user. If
/// the account's own group has another number, this reports it on standard error, and accepts only
/// a session directory that the foreign group cannot enter.
///
/// `session` must exist. Throws MigrateImpossible, with the commands that close the directory,
/// when the group can enter it, and when that cannot be found out.
void refuseForeignGroup(const std::string& session, Console& console);

}  // namespace migrate
