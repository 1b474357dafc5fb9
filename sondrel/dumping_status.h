#pragma once

#include "sondrel/action.h"

DECLARE_ERROR_TAG(DumpStatusError, "Error during getting dumping status");

/// Prints the agent's dumping status on standard output.
class GetDumpingStatusAction : public Action {
 public:
  using Action::Action;
  /// Throws DumpStatusError.
  void execute() override;

 private:
  void printStatus();
};

/// Removes the file that has the dumping status' path, on this host.
class RemoveDumpingStatusAction : public Action {
 public:
  using Action::Action;
  void execute() override;
};
