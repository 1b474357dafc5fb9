#pragma once

#include <array>
#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <string>

#include "commons/exceptions.h"

/// A migration agent as its spec file describes it. Immutable.
class Agent {
 public:
  /// A spec line without a colon, or with an unknown key.
  static ErrorTag ParseFailed;

  /// The values of a spec file: Description, EntryPoint, DocumentType, Stylesheet,
  /// Interpreter. What the file does not name is empty.
  using SpecValues = std::array<std::string, 5>;

  /// Reads a spec file; a file that cannot be opened gives no values. Throws ParseFailed.
  static SpecValues parse(const std::string& specPath);

  Agent(const std::string& name, const boost::filesystem::path& specPath);
  Agent(const std::string& name, const std::string& specPath);

  const std::string& name() const { return name_; }
  const std::string& description() const { return description_; }
  const std::string& entryPoint() const { return entryPoint_; }
  const std::string& documentType() const { return documentType_; }
  const std::string& stylesheet() const { return stylesheet_; }
  const std::string& interpreter() const { return interpreter_; }

  /// What runs the entry point: the interpreter, or "perl" when none is named.
  std::string effectiveInterpreter() const;
  /// The full path of the document type; empty when none is named.
  std::string documentTypePath() const;

  void logContents() const;

 private:
  Agent(const std::string& name, const SpecValues& values);

  std::string name_;
  std::string description_;
  std::string entryPoint_;
  std::string documentType_;
  std::string stylesheet_;
  std::string interpreter_;
};

DESCRIBE_ERROR_TAG(Agent::ParseFailed, "Unable to parse spec file: %1%");
DECLARE_ERROR_TAG(AgentNotFound, "Agent %1% was not found or does not contain proper spec file");

/// Names with a meaning in the agents directory.
extern const char* const AGENTS_SHARED_DIR;
extern const char* const AGENTS_CONTROL_DIR;

/// The agents of the agents directory, by name. A name is its directory's name.
class AgentsFactory {
 public:
  using Agents = std::map<std::string, boost::shared_ptr<const Agent>>;

  /// Loads every agent there is; those without a usable spec file are only logged.
  /// Throws boost::filesystem::filesystem_error when the agents directory cannot be
  /// listed.
  const Agents& getAllAgents();
  /// The agent, loaded by the first call that names it; slashes at the end of `name` are ignored.
  /// Throws AgentNotFound; failures are not remembered.
  boost::shared_ptr<const Agent> getAgent(const std::string& name);

  /// Loads one agent; false when its directory holds no usable spec file.
  bool parseAgent(const std::string& name);
  bool parseAgent(const std::string& name, const boost::filesystem::path& agentDir);

 private:
  Agents agents_;
};

/// The one catalogue of the process.
AgentsFactory& theAgentsFactory();
