#include "commons/ProgramTerminatedException.h"

#include <atomic>

namespace {

std::atomic<bool> isProgramTerminated{false};
static_assert(std::atomic<bool>::is_always_lock_free, "must be safe in a signal handler");

}  // namespace

const char* const TERMINATION_TEXT = "Migration has been terminated";

void terminateProgram() noexcept {
  isProgramTerminated = true;
}

void checkProgramTerminated() {
  if (isProgramTerminated) throw MigrationTerminatedException(TERMINATION_TEXT);
}
