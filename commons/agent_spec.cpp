#include "commons/agent_spec.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/make_shared.hpp>
#include <fstream>
#include <log4cpp/Category.hh>

#include "commons/files.h"

namespace fs = boost::filesystem;

namespace {

log4cpp::Category& agentLog = log4cpp::Category::getInstance("k.Agent");
log4cpp::Category& factoryLog = log4cpp::Category::getInstance("k.AgentsFactory");

enum SpecSlot { DESCRIPTION, ENTRY_POINT, DOCUMENT_TYPE, STYLESHEET, INTERPRETER };

const std::array<const char*, 5> SPEC_KEYS = {"Description", "EntryPoint", "DocumentType",
                                              "Stylesheet", "Interpreter"};

/// The element of `values` for `key`. Throws ParseFailed for an unknown key.
std::string& findSlot(Agent::SpecValues& values, const std::string& specPath,
                      const std::string& key) {
  for (std::size_t slot = 0; slot < SPEC_KEYS.size(); ++slot) {
    if (key == SPEC_KEYS[slot]) return values[slot];
  }
  throw Exc<&Agent::ParseFailed>(HERE) %
      (boost::format("Illegal parameter found in %1%: %2%") % specPath % key).str();
}

std::string withoutLeadingSpace(const std::string& text) {
  const std::string::size_type start = text.find_first_not_of(" \t\n\v\f\r");
  return start == std::string::npos ? "" : text.substr(start);
}

void parseLine(const std::string& specPath, int number, const std::string& line,
               Agent::SpecValues& values) {
  const std::string::size_type colon = line.find(':');
  if (colon == std::string::npos) {
    throw Exc<&Agent::ParseFailed>(HERE) %
        (boost::format("%1%:%2%: Expected '<token>: <value>', got '%3%'") % specPath % number %
         line)
            .str();
  }
  findSlot(values, specPath, line.substr(0, colon)) = withoutLeadingSpace(line.substr(colon + 1));
}

}  // namespace

const char* const AGENTS_SHARED_DIR = "shared";
const char* const AGENTS_CONTROL_DIR = "control";

Agent::SpecValues Agent::parse(const std::string& specPath) {
  SpecValues values;
  std::ifstream file(specPath);
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (!line.empty()) parseLine(specPath, number, line, values);
  }
  return values;
}

Agent::Agent(const std::string& name, const SpecValues& values)
    : name_(name),
      description_(values[DESCRIPTION]),
      entryPoint_(values[ENTRY_POINT]),
      documentType_(values[DOCUMENT_TYPE]),
      stylesheet_(values[STYLESHEET]),
      interpreter_(values[INTERPRETER]) {}

Agent::Agent(const std::string& name, const fs::path& specPath)
    : Agent(name, parse(specPath.string())) {
  agentLog.info("Agent " + name_);
  logContents();
}

Agent::Agent(const std::string& name, const std::string& specPath) : Agent(name, parse(specPath)) {
  // No blank between: programs that read the log expect this line as it is.
  agentLog.info("Agent" + name_);
  logContents();
}

std::string Agent::effectiveInterpreter() const {
  return interpreter_.empty() ? "perl" : interpreter_;
}

std::string Agent::documentTypePath() const {
  if (documentType_.empty()) return {};
  return files::agents::getDir() + "/" + name_ + "/" + AGENTS_CONTROL_DIR + "/" + documentType_;
}

void Agent::logContents() const {
  agentLog.info("Description: " + description_);
  agentLog.info("EntryPoint: " + entryPoint_);
  agentLog.info("DocumentType: " + documentTypePath());
  agentLog.info("Interpreter: " + effectiveInterpreter());
}

bool AgentsFactory::parseAgent(const std::string& name, const fs::path& agentDir) {
  factoryLog.info("Parsing " + agentDir.string());
  const fs::path specPath = agentDir / AGENTS_CONTROL_DIR / "spec";
  boost::system::error_code unusable;
  if (!fs::exists(specPath, unusable) || fs::is_directory(specPath, unusable)) {
    factoryLog.warn((boost::format("%1% is not a regular file") % specPath.string()).str());
    return false;
  }
  try {
    agents_.insert({agentDir.filename().string(), boost::make_shared<const Agent>(name, specPath)});
  } catch (const Exc<&Agent::ParseFailed>&) {
    // The literal "%1%" and the missing separator stay: programs that read the log expect this
    // line.
    factoryLog.warn(std::string("%1% is not a valid agent spec file") + specPath.string());
    return false;
  }
  return true;
}

bool AgentsFactory::parseAgent(const std::string& name) {
  factoryLog.info("Parsing " + name);
  const fs::path agentDir = fs::path(files::agents::getDir()) / name;
  // The name may be impossible for a file, for example too long: no exception for that.
  boost::system::error_code unusable;
  return fs::is_directory(agentDir, unusable) && parseAgent(name, agentDir);
}

const AgentsFactory::Agents& AgentsFactory::getAllAgents() {
  factoryLog.info(std::string("Parsing available agents info"));
  for (const fs::directory_entry& entry : fs::directory_iterator(files::agents::getDir())) {
    boost::system::error_code unusable;
    if (!fs::is_directory(entry.path(), unusable)) continue;
    parseAgent(entry.path().filename().string());
  }
  return agents_;
}

boost::shared_ptr<const Agent> AgentsFactory::getAgent(const std::string& name) {
  // A shell that completes the name of a directory appends a slash.
  const std::string plainName = boost::trim_right_copy_if(name, boost::is_any_of("/"));
  auto found = agents_.find(plainName);
  if (found == agents_.end()) {
    if (!parseAgent(plainName)) throw Exc<&AgentNotFound>(HERE) % name;
    found = agents_.find(plainName);
  }
  // An agent "a/." is stored under the last part of its path, ".", and not under its name.
  if (found == agents_.end()) throw Exc<&AgentNotFound>(HERE) % name;
  return found->second;
}

AgentsFactory& theAgentsFactory() {
  static AgentsFactory factory;
  return factory;
}
