#pragma once

namespace migrate {

/// The exit codes of this program. Other codes are those of a failed run of sondrel.
enum ExitCode {
  EXIT_DONE = 0,
  EXIT_IMPOSSIBLE = 1,
  EXIT_STOPPED = 3,
  EXIT_BUSY = 4,
  /// The plan of a restore has conflicts, or needs packages.
  EXIT_NEEDS_DECISIONS = 5,
  /// The restore failed, or what is here differs from what was fetched.
  EXIT_NOT_RESTORED = 6,
  EXIT_NOT_STARTED = 127,
  EXIT_OF_FIRST_SIGNAL = 128
};

/// The exit code after a termination signal; 0 stands for one that was sent to sondrel itself.
int exitCodeForRequest(int signal);

}  // namespace migrate
