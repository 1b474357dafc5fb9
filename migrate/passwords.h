#pragma once

#include <memory>
#include <string>

#include "migrate/options.h"
#include "migrate/settings.h"
#include "migrate/signals.h"

namespace migrate {

/// The environment variables that sondrel takes its passwords from, and this program too.
extern const char* const LOGIN_VARIABLE;
extern const char* const SUDO_VARIABLE;

/// A password, or none; an empty one is one. Moves and never copies, and is wiped from memory
/// when it goes. Never printed, never an argument.
class Secret {
 public:
  Secret() = default;
  explicit Secret(const std::string& text) : text_(std::make_unique<std::string>(text)) {}
  Secret(Secret&&) noexcept = default;
  Secret& operator=(Secret&&) = delete;
  ~Secret();

  bool isGiven() const { return text_ != nullptr; }
  /// The password itself; empty when there is none.
  const std::string& reveal() const;

 private:
  std::unique_ptr<std::string> text_;
};

/// What one migration needs; `sudo` is given when root is had by sudo, and is empty where
/// sudo asks for none.
struct Passwords {
  Secret login;
  Secret sudo;
};

/// The passwords of this process's environment, taken out of it: neither a child nor a reader
/// of /proc sees them there afterwards.
Passwords takePasswordsFromEnvironment();

/// Gets what `settings` need: from the descriptors of the request, one line each, which are
/// closed afterwards; else from the environment; else from a person at the terminal, who does
/// not see what is typed. Throws MigrateImpossible when there is nobody to ask, Interrupted
/// when a signal ends the waiting.
Passwords obtainPasswords(const Request& request, const Settings& settings, Passwords environment,
                          Signals& signals);

}  // namespace migrate
