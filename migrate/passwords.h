#pragma once

#include <string>

#include "hostlib/secret.h"
#include "migrate/options.h"
#include "migrate/settings.h"
#include "migrate/signals.h"

namespace migrate {

/// The environment variables from which sondrel, and this program too, takes its passwords.
extern const char* const LOGIN_VARIABLE;
extern const char* const SUDO_VARIABLE;
extern const char* const KEY_VARIABLE;

/// The passwords of one migration. `sudo` is given when commands run as root through sudo, and is
/// empty when sudo asks for no password. With a login by key `login` and `key` may be missing.
struct Passwords {
  Secret login;
  Secret sudo;
  Secret key;
};

/// The passwords of this process's environment, taken out of it: neither a child nor a reader
/// of /proc sees them there afterwards.
Passwords takePasswordsFromEnvironment();

/// Gets the passwords that `settings` need: each from its descriptor in `request`, else from the
/// environment, else from a person at the terminal, who does not see what is typed. The descriptors
/// have one line each, are read in the order login, key, sudo, and are closed afterwards. With a
/// login by key, a person is asked neither for the password of the login nor for that of the key.
/// Throws MigrateImpossible when there is no terminal to ask on, Interrupted when a signal ends the
/// waiting.
Passwords obtainPasswords(const Request& request, const Settings& settings, Passwords environment,
                          Signals& signals);

/// Asks a person at the terminal for the password that a login by key lacked, according to the
/// causes of its failure: that of the login or that of the key. False when the causes name neither,
/// or when that password was given already. Throws as obtainPasswords.
bool askForWhatIsWanted(const std::string& causes, const Settings& settings, Passwords& passwords,
                        Signals& signals);

}  // namespace migrate
