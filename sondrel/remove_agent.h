#pragma once

#include "sondrel/action.h"

/// Deletes the remote agent directory. Never fails for the remote side's sake, so
/// that clean-up never fails a migration.
class RemoveAgentAction : public Action {
 public:
  using Action::Action;
  void execute() override;
};
