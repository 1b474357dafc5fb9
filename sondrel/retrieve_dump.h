#pragma once

#include <string>
#include <vector>

#include "sondrel/action.h"

DECLARE_ERROR_TAG(CantRetrieveDumpFile,
                  "Error during dump file retrieving. \n"
                  "Remote agent failed with the following stderr messages: %1%");
DECLARE_ERROR_TAG(CantRetrieveDump, "Error during dump retrieval");

/// Runs the agent to make a dump, and fetches the dump.
class RetrieveDumpAction : public Action {
 public:
  /// `agentArguments` follow the entry point on the command line; `agentInput` is the agent's
  /// standard input, none if it is empty.
  RetrieveDumpAction(bool createStatus, std::vector<std::string> agentArguments,
                     std::string agentInput);
  /// Throws CantRetrieveDump, with the error that caused it.
  void execute() override;

 private:
  std::string agentCommandLine() const;
  void runAgent(const std::string& command);
  void fetchDump();

  std::vector<std::string> agentArguments_;
  std::string agentInput_;
};
