#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "migrate/errors.h"
#include "migrate/step.h"

namespace migrate {

/// What can be said about a migration: an option of the command line, a line of a
/// settings file, and an entry of the state document. Passwords are none of these.
struct SettingKind {
  const char* name;
  /// Stands for the value in the usage text; null for a switch, which is "yes" or "no".
  const char* argument;
  /// The first step whose outcome it shapes: once that is done the setting stands. None
  /// for what may change with every run.
  std::optional<Step> shapes;
  const char* help;
};

/// All kinds, in the order of the usage text.
const std::vector<SettingKind>& settingKinds();

/// The settings of one migration, or those of them that were given.
class Settings {
 public:
  /// Throws MigrateBadSettings for an unknown name and for a value that the setting cannot
  /// have. An empty value for a switch means "yes".
  void set(const std::string& name, const std::string& value);

  /// The value; empty when it was not set.
  std::string get(const std::string& name) const;
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  /// True for a switch that is "yes".
  bool isOn(const std::string& name) const { return get(name) == "yes"; }

  /// The value that holds: the default of one that was not set, empty where there is none.
  std::string inForce(const std::string& name) const;

  /// Takes over what `newer` has.
  void overrideBy(const Settings& newer);

  const std::map<std::string, std::string>& values() const { return values_; }

 private:
  std::map<std::string, std::string> values_;
};

/// Reads a file of lines "name = value", where a switch may stand alone; empty lines and
/// those that begin with '#' are skipped. Throws MigrateBadSettings, naming the line.
Settings readSettingsFile(const std::string& path);

/// Throws MigrateBadSettings when something is missing, or two things exclude each other.
void checkComplete(const Settings& settings);

/// The first setting, by name, that `newer` has in another way and that a finished step
/// was shaped by; nothing when all changes are allowed. A default that is given is no change.
std::optional<std::string> findForbiddenChange(const Settings& older, const Settings& newer,
                                               const std::vector<Step>& doneSteps);

/// True for an agent that knows increments; others may refuse an option that they do not know.
bool knowsIncrements(const Settings& settings);
/// True when the agent must not stay on the source host.
bool isAgentRemoved(const Settings& settings);
/// The agent's name.
std::string agentNameOf(const Settings& settings);
/// The key that sondrel will log in by: that of the settings, of the environment or of the host's
/// configuration; empty for a login by password.
std::string identityOf(const Settings& settings);
/// The directory on the source host in which the agent's own is made.
std::string agentParentOf(const Settings& settings);

}  // namespace migrate
