#include "migrate/sondrel_command.h"

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <initializer_list>
#include <sstream>

namespace migrate {

namespace {

const char* const PROGRAM = "sondrel";

bool isProgram(const std::string& path) {
  boost::system::error_code ignored;
  return boost::filesystem::is_regular_file(path, ignored) && access(path.c_str(), X_OK) == 0;
}

/// Hands settings on under the names they have here, if they were given.
void handOn(const Settings& settings, std::initializer_list<const char*> names, ArgList& line) {
  for (const char* const name : names) {
    if (settings.has(name)) line.push_back(std::string("--") + name + "=" + settings.get(name));
  }
}

void handOnSwitches(const Settings& settings, std::initializer_list<const char*> names,
                    ArgList& line) {
  for (const char* const name : names) {
    if (settings.isOn(name)) line.push_back(std::string("--") + name);
  }
}

void addConnection(const Settings& settings, ArgList& line) {
  handOn(settings, {"host", "port", "login"}, line);
  if (settings.isOn("sudo")) line.emplace_back("--sudo-password");
  handOnSwitches(settings, {"verbose"}, line);
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
  handOnSwitches(settings, {"no-content"}, line);
  if (settings.isOn("dump-all")) {
    line.emplace_back("--dump-all");
    return;
  }
  line.emplace_back("--dump-selected");
  handOn(settings, {"domains", "clients", "resellers", "selected-objects-file"}, line);
  handOnSwitches(settings,
                 {"server", "admin-info", "only-mail", "only-hosting", "no-license", "no-compress"},
                 line);
}

void addContent(const Settings& settings, ArgList& line) {
  line.emplace_back("--get-content");
  handOn(settings, {"dumps-dir"}, line);
  handOnSwitches(settings, {"no-check-space"}, line);
}

}  // namespace

std::string findSondrel() {
  boost::system::error_code ignored;
  const boost::filesystem::path self = boost::filesystem::read_symlink("/proc/self/exe", ignored);
  std::string beside = (self.parent_path() / PROGRAM).string();
  if (!self.empty() && isProgram(beside)) return beside;
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    // An empty folder would mean the present one, which is anybody's.
    if (!folder.empty() && isProgram(folder + "/" + PROGRAM)) return folder + "/" + PROGRAM;
  }
  throw Exc<&MigrateImpossible>(HERE) % "sondrel is neither beside this program nor in PATH";
}

ArgList sondrelCommand(Step step, const Settings& settings, const Places& places) {
  ArgList line = beginOfCommand(settings, places);
  if (step != Step::SCOUT) addAgent(settings, places, line);
  switch (step) {
    case Step::SCOUT: line.emplace_back("--send-scout"); break;
    case Step::DEPLOY: line.emplace_back("--deploy-agent"); break;
    case Step::DUMP: addDump(settings, line); break;
    case Step::CONTENT: addContent(settings, line); break;
    case Step::REMOVE: line.emplace_back("--remove-agent"); break;
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
  return settings.has("dumps-dir") ? settings.get("dumps-dir") : session + "/archives";
}

}  // namespace migrate
