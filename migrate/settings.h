#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "migrate/errors.h"
#include "migrate/step.h"

namespace migrate {

/// The name of a setting. One that is misspelt in the code does not compile.
struct SettingName {
  const char* text;
};

inline bool operator==(const std::string& name, SettingName setting) {
  return name == setting.text;
}
inline bool operator!=(const std::string& name, SettingName setting) {
  return !(name == setting);
}

namespace setting {

inline constexpr SettingName HOST{"host"};
inline constexpr SettingName PORT{"port"};
inline constexpr SettingName JUMP{"jump"};
inline constexpr SettingName LOGIN{"login"};
inline constexpr SettingName IDENTITY{"identity"};
inline constexpr SettingName SUDO{"sudo"};
inline constexpr SettingName AGENT_NAME{"agent-name"};
inline constexpr SettingName AGENT_PARENT{"agent-parent"};
inline constexpr SettingName DUMP_ALL{"dump-all"};
inline constexpr SettingName DOMAINS{"domains"};
inline constexpr SettingName CLIENTS{"clients"};
inline constexpr SettingName RESELLERS{"resellers"};
inline constexpr SettingName SELECTED_OBJECTS_FILE{"selected-objects-file"};
inline constexpr SettingName SERVER{"server"};
inline constexpr SettingName ADMIN_INFO{"admin-info"};
inline constexpr SettingName ONLY_MAIL{"only-mail"};
inline constexpr SettingName ONLY_HOSTING{"only-hosting"};
inline constexpr SettingName NO_LICENSE{"no-license"};
inline constexpr SettingName NO_COMPRESS{"no-compress"};
inline constexpr SettingName NO_CONTENT{"no-content"};
inline constexpr SettingName DUMPS_DIR{"dumps-dir"};
inline constexpr SettingName NO_CHECK_SPACE{"no-check-space"};
inline constexpr SettingName FINAL{"final"};
inline constexpr SettingName KEEP_AGENT{"keep-agent"};
inline constexpr SettingName RESTORE{"restore"};
inline constexpr SettingName RESTORE_INSTALL{"restore-install"};
inline constexpr SettingName VERBOSE{"verbose"};

}  // namespace setting

/// One setting of a migration: an option of the command line, a line of a settings file, and an
/// entry of the state document. Passwords are not settings.
struct SettingKind {
  SettingName name;
  /// Stands for the value in the usage text; null for a switch, which is "yes" or "no".
  const char* argument;
  /// The first step whose result depends on it: once that is done, the setting cannot change.
  /// Nothing for a setting that may change with every run.
  std::optional<Step> shapes;
  const char* help;
};

/// All kinds, in the order of the usage text.
const std::vector<SettingKind>& settingKinds();

/// The settings that were given for one migration.
class Settings {
 public:
  /// Throws MigrateBadSettings for an unknown name and for a value that the setting cannot
  /// have. An empty value for a switch means "yes".
  void set(const std::string& name, const std::string& value);
  void set(SettingName name, const std::string& value) { set(std::string(name.text), value); }

  /// The value; empty when it was not set.
  std::string get(SettingName name) const;
  bool has(SettingName name) const { return values_.count(name.text) != 0; }
  /// True for a switch that is "yes".
  bool isOn(SettingName name) const { return get(name) == "yes"; }

  /// The value, or the default if it was not set; empty if there is no default.
  std::string effectiveValue(SettingName name) const;

  /// Sets every setting that `newer` has.
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

/// The first setting, in the order of names, that `newer` changes although the result of a done
/// step depends on it; nothing when all changes are allowed. Giving a default is no change.
std::optional<SettingName> findForbiddenChange(const Settings& older, const Settings& newer,
                                               const std::vector<Step>& doneSteps);

/// True when the agent supports increments; other agents may refuse the option.
bool knowsIncrements(const Settings& settings);
/// True when the agent must not stay on the source host.
bool isAgentRemoved(const Settings& settings);
/// The agent's name.
std::string agentNameOf(const Settings& settings);
/// The key that sondrel will log in by: that of the settings, of the environment or of the host's
/// configuration; empty for a login by password.
std::string identityOf(const Settings& settings);
/// The directory on the source host in which the agent's own directory is made.
std::string agentParentOf(const Settings& settings);

}  // namespace migrate
