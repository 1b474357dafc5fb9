#pragma once

#include <string>

#include "hostlib/secret.h"
#include "migrate/options.h"
#include "migrate/settings.h"
#include "migrate/signals.h"

namespace migrate {

/// The environment variables that sondrel takes its passwords from, and this program too.
extern const char* const LOGIN_VARIABLE;
extern const char* const SUDO_VARIABLE;
extern const char* const KEY_VARIABLE;

/// What one migration needs; `sudo` is given when root is had by sudo, and is empty where
/// sudo asks for none. With a login by key those of the login and of the key may be missing.
struct Passwords {
  Secret login;
  Secret sudo;
  Secret key;
};

/// The passwords of this process's environment, taken out of it: neither a child nor a reader
/// of /proc sees them there afterwards.
Passwords takePasswordsFromEnvironment();

/// Gets what `settings` need: from the descriptors of the request, one line each, in the order
/// login, key, sudo, which are closed afterwards; else from the environment; else from a person at
/// the terminal, who does not see what is typed. With a login by key the user is not asked for the
/// password of the login, nor for the key's. Throws MigrateImpossible when there is no terminal to
/// ask on, Interrupted when a signal ends the waiting.
Passwords obtainPasswords(const Request& request, const Settings& settings, Passwords environment,
                          Signals& signals);

/// Asks a person at the terminal for what a login by key lacks, as the causes of its failure tell
/// it: the password of the login or that of the key. False when they say nothing of the kind, or
/// it was given. Throws as obtainPasswords.
bool askForWhatIsWanted(const std::string& causes, const Settings& settings, Passwords& passwords,
                        Signals& signals);

}  // namespace migrate
