#pragma once

namespace migrate {

/// The whole program; returns the exit code. Exit codes are chosen here and by Migration, and
/// nowhere else.
int migrateMain(int argc, char** argv);

}  // namespace migrate
