#include "migrate/session_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "commons/commons.h"

namespace migrate {

namespace {

std::string lockFileIn(const std::string& directory) {
  return directory + "/lock";
}

/// A write lock on the whole file.
struct flock wholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

[[noreturn]] void failWithErrno(const std::string& path) {
  throw Exc<&MigrateImpossible>(HERE) % (path + ": " + std::strerror(errno));
}

bool isGone(pid_t pid) {
  return kill(pid, 0) != 0 && errno == ESRCH;
}

[[noreturn]] void throwBusy(const std::string& directory) {
  const std::string session = getPath(directory);
  const std::optional<pid_t> pid = SessionLock::holder(directory);
  const std::string process = pid ? " (process " + std::to_string(*pid) + ")" : "";
  if (pid && isGone(*pid)) {
    throw Exc<&MigrateSessionBusy>(HERE) %
        ("The run that worked on " + session + process +
         " was killed, and the sondrel that it started is still at work. Run this again when that "
         "has ended");
  }
  throw Exc<&MigrateSessionBusy>(HERE) %
      ("Another run is at work on " + session + process + ". \"sondrel-migrate status " + session +
       "\" shows how far it is");
}

}  // namespace

SessionLock::SessionLock(const std::string& directory) {
  const std::string path = lockFileIn(directory);
  file_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (!file_) failWithErrno(path);
  // The service account may ask for the status, which reads this file.
  if (fchown(file_.get(), static_cast<uid_t>(-1), serviceAccount().group) != 0) {
    failWithErrno(path);
  }
  struct flock lock = wholeFile();
  if (fcntl(file_.get(), F_OFD_SETLK, &lock) != 0) {
    if (errno == EAGAIN || errno == EACCES) throwBusy(directory);
    failWithErrno(path);
  }
  const std::string text = std::to_string(getpid()) + "\n";
  if (ftruncate(file_.get(), 0) != 0 ||
      pwrite(file_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    failWithErrno(path);
  }
}

bool SessionLock::isHeld(const std::string& directory) {
  const UniqueFd file(open(lockFileIn(directory).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file) return false;
  struct flock lock = wholeFile();
  return fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool SessionLock::isHeldByOrphan(const std::string& directory) {
  const std::optional<pid_t> pid = holder(directory);
  return pid && isGone(*pid) && isHeld(directory);
}

std::optional<pid_t> SessionLock::holder(const std::string& directory) {
  std::ifstream file(lockFileIn(directory));
  pid_t pid = 0;
  if (!(file >> pid) || pid <= 0) return std::nullopt;
  return pid;
}

}  // namespace migrate
