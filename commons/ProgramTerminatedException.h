#pragma once

#include <stdexcept>

/// The text that a run prints on standard output when an operator stopped it.
extern const char* const TERMINATION_TEXT;

/// Raised when an operator asked for a stop. Not an ExTraceable: it is no failure,
/// and it must pass every handler for failures.
class MigrationTerminatedException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Asks for a clean stop at the next safe point. Only sets a flag, which is never
/// cleared: safe in a signal handler and in another thread.
void terminateProgram() noexcept;

/// Throws MigrationTerminatedException if a stop was asked for. Called before each
/// chunk of data that is copied, so that a chunk is written whole or not at all.
void checkProgramTerminated();
