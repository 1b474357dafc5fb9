#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "commons/unique_fd.h"
#include "migrate/errors.h"

namespace migrate {

/// Prevents two runs on one session at the same time, by the lock file "migrate/lock".
///
/// The lock belongs to the open descriptor: a child that inherits it holds it as well. So the
/// session is busy as long as a sondrel works on it, even if the program that started it was
/// killed.
class SessionLock {
 public:
  /// `directory` must exist. Throws MigrateSessionBusy when another process holds the lock,
  /// MigrateImpossible when locking fails for another reason.
  explicit SessionLock(const std::string& directory);

  int descriptor() const { return file_.get(); }

  /// True when a process holds the lock of that directory; asking does not change it.
  static bool isHeld(const std::string& directory);
  /// True when the lock is held although the process that took it has ended: a sondrel that it
  /// started holds it.
  static bool isHeldByOrphan(const std::string& directory);
  /// The process that took the lock last, according to the file.
  static std::optional<pid_t> holder(const std::string& directory);

 private:
  UniqueFd file_;
};

}  // namespace migrate
