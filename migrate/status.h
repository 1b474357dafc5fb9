#pragma once

#include <string>

#include "migrate/console.h"

namespace migrate {

/// Shows how far the migration in a session directory is, from its documents; it may be at
/// work, and is not disturbed. Steps that an administrator made by running sondrel directly show as
/// the progress of the dump and of the content. Throws MigrateImpossible when there is none.
void showStatus(const std::string& session, Console& console);

}  // namespace migrate
