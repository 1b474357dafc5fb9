#pragma once

#include <string>

#include "migrate/console.h"

namespace migrate {

/// Prints how far the migration in a session directory is, from its documents. A running migration
/// is not disturbed. For a session in which an administrator ran sondrel directly, prints the
/// progress of the dump and of the content. Throws MigrateImpossible when there is neither.
void showStatus(const std::string& session, Console& console);

}  // namespace migrate
