#pragma once

#include <memory>
#include <string>

#include "sondrel/action.h"
#include "sondrel/options.h"

/// The driver: reads the command line, sets up session and logs, runs the one action
/// and chooses the exit code. Exit codes are chosen nowhere else.

DECLARE_ERROR_TAG(UnknownAction,
                  "Unknown action passed to the function. Probably bug in the options parser");
DECLARE_ERROR_TAG(CantReadNames, "Cannot read the names from standard input: %1%");

/// The whole run; returns the exit code. Failures outside the action phase, except option errors,
/// are exceptions.
int real_main(int argc, char** argv);

/// The action phase; returns the exit code. Every failure that the program knows is
/// in the result log, the debug log and, with its text only, on the console.
int do_actions(config& config);

/// The action for the configuration, which must outlive it. Throws UnknownAction and
/// what building the dump arguments throws.
std::unique_ptr<Action> getActionById(const config& config);
/// The same, but the action has not received the configuration; the caller owns the result.
Action* getActionByIdInternal(const config& config);

/// The name of the result log in the session directory; empty for the default.
std::string getLogName(const config& config);
