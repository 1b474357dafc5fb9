#pragma once

#include "sondrel/action.h"

/// Deletes the remote agent directory. Errors of the source host are ignored, so that clean-up
/// never makes a migration fail.
class RemoveAgentAction : public Action {
 public:
  using Action::Action;
  void execute() override;
};
