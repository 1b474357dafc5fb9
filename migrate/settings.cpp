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
                                  [&](const SettingKind& kind) { return kind.name == name; });
  return found == kinds.end() ? nullptr : &*found;
}

/// The directory is removed with everything in it, and its name reaches a shell as it is.
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

/// Everything must come back from a document as it was.
void checkText(const std::string& name, const std::string& value) {
  if (value.empty()) refuse("--" + name + " needs a value");
  const bool oneLine = value.find_first_of("\r\n\t") == std::string::npos;
  if (!oneLine || toXmlSafeText(value) != value) {
    refuse("--" + name + " holds control characters, or is not UTF-8");
  }
}

void checkValue(const std::string& name, const std::string& value) {
  checkText(name, value);
  if (name == "port") checkPort(value);
  if (name == "jump" && !parseJumpHost(value)) {
    refuse("--jump must be [login@]host[:port], with an address that has colons in brackets");
  }
  if (name == "agent-parent") checkAgentParent(value);
  if (name == "domains" || name == "clients" || name == "resellers") checkNames(name, value);
}

std::string switchValue(const std::string& name, const std::string& value) {
  if (value.empty() || value == "yes") return "yes";
  if (value != "no") refuse("--" + name + R"( must be "yes" or "no")");
  return value;
}

bool namesFile(const std::string& name) {
  return name == "dumps-dir" || name == "selected-objects-file" || name == "identity";
}

bool namesAgent(const std::string& name, const std::string& value) {
  return name == "identity" && value == "agent";
}

/// One thing has one spelling, for that of a step that is done is compared with later ones.
std::string plainValue(const std::string& name, const std::string& value) {
  // The run that goes on may be made from another directory.
  if (namesFile(name) && !namesAgent(name, value)) {
    return boost::filesystem::absolute(value).string();
  }
  // A shell that completes the name of a directory puts a slash behind it.
  if (name != "agent-name") return value;
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

bool isAnyGiven(const Settings& settings, std::initializer_list<const char*> names) {
  return std::any_of(names.begin(), names.end(), [&](const char* name) {
    return settings.has(name) && settings.get(name) != "no";
  });
}

void checkSelection(const Settings& settings) {
  const bool selected = isAnyGiven(settings, {"domains", "clients", "resellers",
                                              "selected-objects-file", "server", "admin-info"});
  const bool narrowed =
      isAnyGiven(settings, {"only-mail", "only-hosting", "no-compress", "no-license"});
  if (settings.isOn("dump-all")) {
    if (selected) refuse("--dump-all dumps everything: leave it out, or the selection");
    if (narrowed) {
      refuse(
          "--dump-all dumps everything. For --only-mail, --only-hosting, --no-compress and "
          "--no-license name what to dump instead, such as --clients=... or --domains=...");
    }
  } else if (!selected) {
    refuse("what to dump is missing: --dump-all, or a selection such as --domains=...");
  }
  if (settings.isOn("only-mail") && settings.isOn("only-hosting")) {
    refuse("--only-mail and --only-hosting exclude each other");
  }
}

void checkRestore(const Settings& settings) {
  if (settings.isOn("restore-install") && !settings.isOn("restore")) {
    refuse("--restore-install installs what --restore needs: give both");
  }
  if (settings.isOn("restore") && settings.isOn("no-content")) {
    refuse("--restore and --no-content exclude each other: there would be nothing to restore from");
  }
}

}  // namespace

const std::vector<SettingKind>& settingKinds() {
  static const std::vector<SettingKind> kinds = {
      {"host", "HOST", Step::SCOUT, "the source host: a name or an address"},
      {"port", "N", std::nullopt, "the port of its SSH server; 22 if not given"},
      {"jump", "[LOGIN@]HOST[:PORT]", std::nullopt, "reach it through this host, by ssh"},
      {"login", "NAME", std::nullopt, "the login there"},
      {"identity", "FILE", std::nullopt, "log in by this private key, or \"agent\""},
      {"sudo", nullptr, std::nullopt, "become root there by sudo"},
      {"agent-name", "NAME", Step::DEPLOY, "the agent; \"linux\" if not given"},
      {"agent-parent", "DIR", Step::DEPLOY,
       "the directory there in which the agent's own is made; /root for root"},
      {"dump-all", nullptr, Step::DUMP, "dump everything; or else choose:"},
      {"domains", "A,B", Step::DUMP, "these domains"},
      {"clients", "A,B", Step::DUMP, "these clients"},
      {"resellers", "A,B", Step::DUMP, "these resellers"},
      {"selected-objects-file", "FILE", Step::DUMP, "what this document names"},
      {"server", nullptr, Step::DUMP, "the settings of the server"},
      {"admin-info", nullptr, Step::DUMP, "the administrator"},
      {"only-mail", nullptr, Step::DUMP, "of what is chosen, only mail"},
      {"only-hosting", nullptr, Step::DUMP, "of what is chosen, everything but mail"},
      {"no-license", nullptr, Step::DUMP, "leave out the licence"},
      {"no-compress", nullptr, Step::DUMP, "archives without compression"},
      {"no-content", nullptr, Step::DUMP, "only the description: no archives, nothing is fetched"},
      {"dumps-dir", "DIR", Step::CONTENT, "where content files go; the session's archives/"},
      {"no-check-space", nullptr, std::nullopt, "do not ask whether there is room for them"},
      {"final", nullptr, std::nullopt, "this is the last pass: remove the agent at its end"},
      {"keep-agent", nullptr, std::nullopt,
       "leave the agent on the source host; so it is until --final"},
      {"restore", nullptr, std::nullopt, "then restore on this host what was fetched"},
      {"restore-install", nullptr, std::nullopt,
       "with packages of Debian that are missing for that"},
      {"verbose", nullptr, std::nullopt, "make sondrel log to standard error as well"},
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

std::string Settings::get(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? "" : found->second;
}

std::string Settings::inForce(const std::string& name) const {
  const SettingKind* const kind = findKind(name);
  if (name == "keep-agent") return isAgentRemoved(*this) ? "no" : "yes";
  if (kind && !kind->argument) return isOn(name) ? "yes" : "no";
  if (name == "agent-name") return agentNameOf(*this);
  if (name == "agent-parent") return agentParentOf(*this);
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
  for (const char* const name : {"host", "login"}) {
    if (!settings.has(name)) refuse(std::string("--") + name + " is missing");
  }
  if (!settings.has("agent-parent") && settings.get("login") != "root") {
    refuse(
        "--agent-parent is required unless --login is root: a directory on the source host that "
        "the login can reach, such as its home");
  }
  checkSelection(settings);
  checkRestore(settings);
}

std::optional<std::string> findForbiddenChange(const Settings& older, const Settings& newer,
                                               const std::vector<Step>& doneSteps) {
  for (const SettingKind& kind : settingKinds()) {
    const bool stands = kind.shapes && std::find(doneSteps.begin(), doneSteps.end(),
                                                 *kind.shapes) != doneSteps.end();
    if (stands && older.inForce(kind.name) != newer.inForce(kind.name)) return kind.name;
  }
  return std::nullopt;
}

bool knowsIncrements(const Settings& settings) {
  return agentNameOf(settings) == DEFAULT_AGENT;
}

bool isAgentRemoved(const Settings& settings) {
  return settings.isOn("final") || settings.get("keep-agent") == "no";
}

std::string agentNameOf(const Settings& settings) {
  return settings.has("agent-name") ? settings.get("agent-name") : DEFAULT_AGENT;
}

std::string identityOf(const Settings& settings) {
  if (settings.has("identity")) return settings.get("identity");
  if (const char* const value = std::getenv("SONDREL_IDENTITY")) return value;
  const char* const configured = qrvConfGet("SSH_IDENTITY_F");
  return configured ? boost::trim_right_copy(std::string(configured)) : "";
}

std::string agentParentOf(const Settings& settings) {
  return settings.has("agent-parent") ? settings.get("agent-parent") : DEFAULT_AGENT_PARENT;
}

}  // namespace migrate
