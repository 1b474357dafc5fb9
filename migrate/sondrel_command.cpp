#include "migrate/sondrel_command.h"

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <initializer_list>
#include <sstream>

namespace migrate {

namespace {

const char* const PROGRAM = "sondrel";
const char* const RESTORE_PROGRAM = "sondrel-restore";

bool isProgram(const std::string& path) {
  boost::system::error_code ignored;
  return boost::filesystem::is_regular_file(path, ignored) && access(path.c_str(), X_OK) == 0;
}

/// Appends the settings of these names that were given, as options of the same names.
void handOn(const Settings& settings, std::initializer_list<SettingName> names, ArgList& line) {
  for (const SettingName name : names) {
    if (settings.has(name))
      line.push_back(std::string("--") + name.text + "=" + settings.get(name));
  }
}

void handOnSwitches(const Settings& settings, std::initializer_list<SettingName> names,
                    ArgList& line) {
  for (const SettingName name : names) {
    if (settings.isOn(name)) line.push_back(std::string("--") + name.text);
  }
}

void addConnection(const Settings& settings, ArgList& line) {
  handOn(settings, {setting::HOST, setting::PORT, setting::LOGIN}, line);
  if (settings.isOn(setting::SUDO)) line.emplace_back("--sudo-password");
  handOnSwitches(settings, {setting::VERBOSE}, line);
}

ArgList beginOfCommand(const Settings& settings, const Places& places) {
  ArgList line = {PROGRAM, "--session-path=" + places.session};
  addConnection(settings, line);
  return line;
}

void addAgent(const Settings& settings, const Places& places, ArgList& line) {
  line.push_back("--agent-dir=" + places.agentDir);
  line.push_back("--agent-name=" + agentNameOf(settings));
}

void addDump(const Settings& settings, ArgList& line) {
  handOnSwitches(settings, {setting::NO_CONTENT}, line);
  if (settings.isOn(setting::DUMP_ALL)) {
    line.emplace_back("--dump-all");
    return;
  }
  line.emplace_back("--dump-selected");
  handOn(settings,
         {setting::DOMAINS, setting::CLIENTS, setting::RESELLERS, setting::SELECTED_OBJECTS_FILE},
         line);
  handOnSwitches(settings,
                 {setting::SERVER, setting::ADMIN_INFO, setting::ONLY_MAIL, setting::ONLY_HOSTING,
                  setting::NO_LICENSE, setting::NO_COMPRESS},
                 line);
}

void addContent(const Settings& settings, ArgList& line) {
  line.emplace_back("--get-content");
  handOn(settings, {setting::DUMPS_DIR}, line);
  handOnSwitches(settings, {setting::NO_CHECK_SPACE}, line);
}

ArgList restoreCommand(Step step, const Settings& settings, const Places& places) {
  ArgList line = {RESTORE_PROGRAM, nameOf(step)};
  if (settings.has(setting::DUMPS_DIR))
    line.push_back("--archives=" + settings.get(setting::DUMPS_DIR));
  if (settings.isOn(setting::RESTORE_INSTALL) && step != Step::VERIFY)
    line.emplace_back("--install");
  line.push_back(places.session);
  return line;
}

/// The program in the directory of this one, or else the first one in PATH; empty when there is
/// none.
std::string findProgram(const std::string& name) {
  boost::system::error_code ignored;
  const boost::filesystem::path self = boost::filesystem::read_symlink("/proc/self/exe", ignored);
  std::string beside = (self.parent_path() / name).string();
  if (!self.empty() && isProgram(beside)) return beside;
  const char* const path = std::getenv("PATH");
  std::istringstream directories(path ? path : "");
  for (std::string directory; std::getline(directories, directory, ':');) {
    // An empty entry would mean the current directory, which any account may own.
    if (directory.empty()) continue;
    std::string program = directory.append("/").append(name);
    if (isProgram(program)) return program;
  }
  return "";
}

}  // namespace

std::string findSondrel() {
  std::string program = findProgram(PROGRAM);
  if (!program.empty()) return program;
  throw Exc<&MigrateImpossible>(HERE) % "sondrel is neither beside this program nor in PATH";
}

std::string findSondrelRestore() {
  std::string program = findProgram(RESTORE_PROGRAM);
  if (!program.empty()) return program;
  throw Exc<&MigrateImpossible>(HERE) %
      "sondrel-restore, which --restore needs, is neither beside this program nor in PATH: install "
      "the package sondrel-restore";
}

ArgList commandOf(Step step, const Settings& settings, const Places& places) {
  if (isOfRestore(step)) return restoreCommand(step, settings, places);
  ArgList line = beginOfCommand(settings, places);
  if (step != Step::SCOUT) addAgent(settings, places, line);
  switch (step) {
    case Step::SCOUT: line.emplace_back("--send-scout"); break;
    case Step::DEPLOY: line.emplace_back("--deploy-agent"); break;
    case Step::DUMP: addDump(settings, line); break;
    case Step::CONTENT: addContent(settings, line); break;
    case Step::REMOVE: line.emplace_back("--remove-agent"); break;
    case Step::PLAN:
    case Step::APPLY:
    case Step::VERIFY: break;
  }
  return line;
}

ArgList dumpingStatusCommand(const Settings& settings, const Places& places) {
  ArgList line = beginOfCommand(settings, places);
  addAgent(settings, places, line);
  line.emplace_back("--get-dumping-status");
  return line;
}

std::string contentDirOf(const Settings& settings, const std::string& session) {
  return settings.has(setting::DUMPS_DIR) ? settings.get(setting::DUMPS_DIR)
                                          : session + "/archives";
}

}  // namespace migrate
