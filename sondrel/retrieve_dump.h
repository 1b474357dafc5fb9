#pragma once

#include <string>
#include <vector>

#include "sondrel/action.h"

DECLARE_ERROR_TAG(CantRetrieveDumpFile,
                  "Error during dump file retrieving. \n"
                  "Remote agent failed with the following stderr messages: %1%");
DECLARE_ERROR_TAG(CantRetrieveDump, "Error during dump retrieval");

/// Has the agent dump, and fetches the dump.
class RetrieveDumpAction : public Action {
 public:
  /// `agentArguments` follow the entry point; `agentInput`, if not empty, is what the
  /// agent reads.
  RetrieveDumpAction(bool createStatus, std::vector<std::string> agentArguments,
                     std::string agentInput);
  /// Throws CantRetrieveDump around every error.
  void execute() override;

 private:
  std::string agentCommandLine() const;
  void runAgent(const std::string& command);
  void fetchDump();

  std::vector<std::string> agentArguments_;
  std::string agentInput_;
};
