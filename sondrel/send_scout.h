#pragma once

#include "sondrel/action.h"

DECLARE_ERROR_TAG(UnableToOpenScoutFile, "Unable to open %1% for transferring to the remote host");
DECLARE_ERROR_TAG(
    FailedToExecuteScout,
    "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%");

/// Runs the scout script on the source host and stores what it prints.
class SendScoutAction : public Action {
 public:
  using Action::Action;
  /// Throws FailedToExecuteScout.
  void execute() override;
};
