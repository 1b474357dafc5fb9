#include "migrate/settings.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "commons/jump_host.h"
#include "commons/xml_wrap.h"
#include "hostlib/qrv_conf.h"

namespace migrate {

namespace {

const char* const DEFAULT_AGENT = "linux";
const char* const DEFAULT_AGENT_PARENT = "/root";
constexpr unsigned long LARGEST_PORT = 65535;

[[noreturn]] void refuse(const std::string& text) {
  throw Exc<&MigrateBadSettings>(HERE) % text;
}

const SettingKind* findKind(const std::string& name) {
  const std::vector<SettingKind>& kinds = settingKinds();
  const auto found = std::find_if(kinds.begin(), kinds.end(),
                                  [&](const SettingKind& kind) { return name == kind.name; });
  return found == kinds.end() ? nullptr : &*found;
}

/// Refuses risky paths: the agent's directory in it is removed with its whole content, and a shell
/// gets the path unquoted.
void checkAgentParent(const std::string& path) {
  const std::string parts = path + "/";
  const bool plain = path.find_first_not_of(
                         "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                         "0123456789/._-") == std::string::npos;
  if (plain && path.front() == '/' && parts.find("/../") == std::string::npos) return;
  refuse("--agent-parent must be an absolute path of letters, digits and \"._-\"");
}

void checkPort(const std::string& text) {
  const bool isNumber = text.size() <= 5 && std::all_of(text.begin(), text.end(), [](char c) {
                          return c >= '0' && c <= '9';
                        });
  if (isNumber && std::stoul(text) >= 1 && std::stoul(text) <= LARGEST_PORT) return;
  refuse("--port must be a number from 1 to 65535");
}

/// Standard input cannot be read: a later run that resumes would find it empty.
void checkNames(const std::string& name, const std::string& value) {
  if (value == "-") refuse("--" + name + " cannot be read from standard input");
}

/// Refuses text that a document would not give back unchanged.
void checkText(const std::string& name, const std::string& value) {
  if (value.empty()) refuse("--" + name + " needs a value");
  const bool oneLine = value.find_first_of("\r\n\t") == std::string::npos;
  if (!oneLine || toXmlSafeText(value) != value) {
    refuse("--" + name + " holds control characters, or is not UTF-8");
  }
}

void checkValue(const std::string& name, const std::string& value) {
  checkText(name, value);
  if (name == setting::PORT) checkPort(value);
  if (name == setting::JUMP && !parseJumpHost(value)) {
    refuse("--jump must be [login@]host[:port], with an address that has colons in brackets");
  }
  if (name == setting::AGENT_PARENT) checkAgentParent(value);
  if (name == setting::DOMAINS || name == setting::CLIENTS || name == setting::RESELLERS)
    checkNames(name, value);
}

std::string switchValue(const std::string& name, const std::string& value) {
  if (value.empty() || value == "yes") return "yes";
  if (value != "no") refuse("--" + name + R"( must be "yes" or "no")");
  return value;
}

bool namesFile(const std::string& name) {
  return name == setting::DUMPS_DIR || name == setting::SELECTED_OBJECTS_FILE ||
         name == setting::IDENTITY;
}

bool namesAgent(const std::string& name, const std::string& value) {
  return name == setting::IDENTITY && value == "agent";
}

/// Gives equal values one spelling: the settings of a done step are compared with those of later
/// runs.
std::string plainValue(const std::string& name, const std::string& value) {
  // The run that resumes may start in another directory.
  if (namesFile(name) && !namesAgent(name, value)) {
    return boost::filesystem::absolute(value).string();
  }
  // A shell that completes the name of a directory appends a slash.
  if (name != setting::AGENT_NAME) return value;
  const std::string plain = boost::trim_right_copy_if(value, boost::is_any_of("/"));
  return plain.empty() ? value : plain;
}

void parseLine(const std::string& line, Settings& settings) {
  const std::string text = boost::trim_copy(line);
  if (text.empty() || text.front() == '#') return;
  const std::string::size_type sign = text.find('=');
  if (sign == std::string::npos) {
    settings.set(text, "");
  } else {
    const std::string value = boost::trim_copy(text.substr(sign + 1));
    if (value.empty()) refuse("no value behind \"=\"");
    settings.set(boost::trim_copy(text.substr(0, sign)), value);
  }
}

bool isAnyGiven(const Settings& settings, std::initializer_list<SettingName> names) {
  return std::any_of(names.begin(), names.end(), [&](SettingName name) {
    return settings.has(name) && settings.get(name) != "no";
  });
}

void checkSelection(const Settings& settings) {
  const bool selected =
      isAnyGiven(settings, {setting::DOMAINS, setting::CLIENTS, setting::RESELLERS,
                            setting::SELECTED_OBJECTS_FILE, setting::SERVER, setting::ADMIN_INFO});
  const bool narrowed = isAnyGiven(settings, {setting::ONLY_MAIL, setting::ONLY_HOSTING,
                                              setting::NO_COMPRESS, setting::NO_LICENSE});
  if (settings.isOn(setting::DUMP_ALL)) {
    if (selected) refuse("--dump-all dumps everything: leave it out, or the selection");
    if (narrowed) {
      refuse(
          "--dump-all dumps everything. For --only-mail, --only-hosting, --no-compress and "
          "--no-license name what to dump instead, such as --clients=... or --domains=...");
    }
  } else if (!selected) {
    refuse("what to dump is missing: --dump-all, or a selection such as --domains=...");
  }
  if (settings.isOn(setting::ONLY_MAIL) && settings.isOn(setting::ONLY_HOSTING)) {
    refuse("--only-mail and --only-hosting exclude each other");
  }
}

void checkRestore(const Settings& settings) {
  if (settings.isOn(setting::RESTORE_INSTALL) && !settings.isOn(setting::RESTORE)) {
    refuse("--restore-install installs what --restore needs: give both");
  }
  if (settings.isOn(setting::RESTORE) && settings.isOn(setting::NO_CONTENT)) {
    refuse("--restore and --no-content exclude each other: there would be nothing to restore from");
  }
}

}  // namespace

const std::vector<SettingKind>& settingKinds() {
  static const std::vector<SettingKind> kinds = {
      {setting::HOST, "HOST", Step::SCOUT, "the source host: a name or an address"},
      {setting::PORT, "N", std::nullopt, "the port of its SSH server; 22 if not given"},
      {setting::JUMP, "[LOGIN@]HOST[:PORT]", std::nullopt, "reach it through this host, by ssh"},
      {setting::LOGIN, "NAME", std::nullopt, "the login there"},
      {setting::IDENTITY, "FILE", std::nullopt, "log in by this private key, or \"agent\""},
      {setting::SUDO, nullptr, std::nullopt, "become root there by sudo"},
      {setting::AGENT_NAME, "NAME", Step::DEPLOY, "the agent; \"linux\" if not given"},
      {setting::AGENT_PARENT, "DIR", Step::DEPLOY,
       "the directory there in which the agent's own is made; /root for root"},
      {setting::DUMP_ALL, nullptr, Step::DUMP, "dump everything; or else choose:"},
      {setting::DOMAINS, "A,B", Step::DUMP, "these domains"},
      {setting::CLIENTS, "A,B", Step::DUMP, "these clients"},
      {setting::RESELLERS, "A,B", Step::DUMP, "these resellers"},
      {setting::SELECTED_OBJECTS_FILE, "FILE", Step::DUMP, "what this document names"},
      {setting::SERVER, nullptr, Step::DUMP, "the settings of the server"},
      {setting::ADMIN_INFO, nullptr, Step::DUMP, "the administrator"},
      {setting::ONLY_MAIL, nullptr, Step::DUMP, "of what is chosen, only mail"},
      {setting::ONLY_HOSTING, nullptr, Step::DUMP, "of what is chosen, everything but mail"},
      {setting::NO_LICENSE, nullptr, Step::DUMP, "leave out the licence"},
      {setting::NO_COMPRESS, nullptr, Step::DUMP, "archives without compression"},
      {setting::NO_CONTENT, nullptr, Step::DUMP,
       "only the description: no archives, nothing is fetched"},
      {setting::DUMPS_DIR, "DIR", Step::CONTENT, "where content files go; the session's archives/"},
      {setting::NO_CHECK_SPACE, nullptr, std::nullopt, "do not ask whether there is room for them"},
      {setting::FINAL, nullptr, std::nullopt, "this is the last pass: remove the agent at its end"},
      {setting::KEEP_AGENT, nullptr, std::nullopt,
       "leave the agent on the source host; so it is until --final"},
      {setting::RESTORE, nullptr, std::nullopt, "then restore on this host what was fetched"},
      {setting::RESTORE_INSTALL, nullptr, std::nullopt,
       "with packages of Debian that are missing for that"},
      {setting::VERBOSE, nullptr, std::nullopt, "make sondrel log to standard error as well"},
  };
  return kinds;
}

void Settings::set(const std::string& name, const std::string& value) {
  const SettingKind* const kind = findKind(name);
  if (!kind) refuse("no such setting: " + toXmlSafeText(name));
  if (!kind->argument) {
    values_[name] = switchValue(name, value);
    return;
  }
  checkValue(name, value);
  values_[name] = plainValue(name, value);
}

std::string Settings::get(SettingName name) const {
  const auto found = values_.find(name.text);
  return found == values_.end() ? "" : found->second;
}

std::string Settings::effectiveValue(SettingName name) const {
  const std::string text = name.text;
  const SettingKind* const kind = findKind(text);
  if (text == setting::KEEP_AGENT) return isAgentRemoved(*this) ? "no" : "yes";
  if (kind && !kind->argument) return isOn(name) ? "yes" : "no";
  if (text == setting::AGENT_NAME) return agentNameOf(*this);
  if (text == setting::AGENT_PARENT) return agentParentOf(*this);
  return get(name);
}

void Settings::overrideBy(const Settings& newer) {
  for (const auto& [name, value] : newer.values_) values_[name] = value;
}

Settings readSettingsFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) refuse(path + " cannot be read: " + std::strerror(errno));
  Settings settings;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    try {
      parseLine(line, settings);
    } catch (const ExTraceable& e) {
      refuse(path + ", line " + std::to_string(number) + ": " + e.what());
    }
  }
  if (file.bad()) refuse(path + " cannot be read: " + std::strerror(errno));
  return settings;
}

void checkComplete(const Settings& settings) {
  for (const SettingName name : {setting::HOST, setting::LOGIN}) {
    if (!settings.has(name)) refuse(std::string("--") + name.text + " is missing");
  }
  if (!settings.has(setting::AGENT_PARENT) && settings.get(setting::LOGIN) != "root") {
    refuse(
        "--agent-parent is required unless --login is root: a directory on the source host that "
        "the login can reach, such as its home");
  }
  checkSelection(settings);
  checkRestore(settings);
}

std::optional<SettingName> findForbiddenChange(const Settings& older, const Settings& newer,
                                               const std::vector<Step>& doneSteps) {
  for (const SettingKind& kind : settingKinds()) {
    const bool stands = kind.shapes && std::find(doneSteps.begin(), doneSteps.end(),
                                                 *kind.shapes) != doneSteps.end();
    if (stands && older.effectiveValue(kind.name) != newer.effectiveValue(kind.name))
      return kind.name;
  }
  return std::nullopt;
}

bool knowsIncrements(const Settings& settings) {
  return agentNameOf(settings) == DEFAULT_AGENT;
}

bool isAgentRemoved(const Settings& settings) {
  return settings.isOn(setting::FINAL) || settings.get(setting::KEEP_AGENT) == "no";
}

std::string agentNameOf(const Settings& settings) {
  return settings.has(setting::AGENT_NAME) ? settings.get(setting::AGENT_NAME) : DEFAULT_AGENT;
}

std::string identityOf(const Settings& settings) {
  if (settings.has(setting::IDENTITY)) return settings.get(setting::IDENTITY);
  if (const char* const value = std::getenv("SONDREL_IDENTITY")) return value;
  const char* const configured = qrvConfGet("SSH_IDENTITY_F");
  return configured ? boost::trim_right_copy(std::string(configured)) : "";
}

std::string agentParentOf(const Settings& settings) {
  return settings.has(setting::AGENT_PARENT) ? settings.get(setting::AGENT_PARENT)
                                             : DEFAULT_AGENT_PARENT;
}

}  // namespace migrate
