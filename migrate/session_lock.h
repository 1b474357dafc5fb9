#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "commons/unique_fd.h"
#include "migrate/errors.h"

namespace migrate {

/// Keeps two runs on one session apart, by "migrate/lock".
///
/// The lock belongs to the open descriptor: a child that inherits it holds it as well, so
/// that the session is busy as long as a sondrel is at work on it, even when the program that
/// started it was killed.
class SessionLock {
 public:
  /// `folder` must exist. Throws MigrateSessionBusy when another process holds the lock,
  /// MigrateImpossible when it cannot be had at all.
  explicit SessionLock(const std::string& folder);

  int descriptor() const { return file_.get(); }

  /// Whether a process holds the lock of that directory; asking does not change it.
  static bool isHeld(const std::string& folder);
  /// The same where the process that took the lock is gone: a sondrel that it started has it.
  static bool isHeldByOrphan(const std::string& folder);
  /// The process that took it last, as far as the file says.
  static std::optional<pid_t> holder(const std::string& folder);

 private:
  UniqueFd file_;
};

}  // namespace migrate
