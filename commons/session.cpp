#include "commons/session.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cerrno>

#include "commons/commons.h"
#include "commons/files.h"
#include "hostlib/accounts.h"
#include "hostlib/messlog.h"

namespace fs = boost::filesystem;

namespace {

constexpr mode_t SESSION_DIR_MODE = 0750;
constexpr mode_t GROUP_BITS = 070;
/// For chown: leave the owner or the group unchanged.
constexpr uid_t SAME_OWNER = static_cast<uid_t>(-1);
constexpr gid_t SAME_GROUP = static_cast<gid_t>(-1);

/// True when `path` is a directory afterwards; what is there already is not changed.
bool provideDirectory(const fs::path& path) {
  boost::system::error_code ignored;
  if (!fs::exists(path, ignored)) {
    // The group gets the number of the account's user.
    const int failed = make_dir(path.string(), 0, get_user_id("qrvadm"), SESSION_DIR_MODE);
    // Without the right to change owners the session belongs to the user of this process alone.
    const bool notGiven = failed != 0 && (errno == EPERM || errno == EINVAL);
    if (notGiven) make_dir(path.string(), SAME_OWNER, SAME_GROUP, SESSION_DIR_MODE);
  }
  return fs::is_directory(path, ignored);
}

/// Reports to the system log: the caller asked for this directory, and cannot see that its group
/// may be a group of other accounts.
void reportForeignGroup(const std::string& dir) {
  struct stat status;
  const ServiceAccount& account = serviceAccount();
  if (account.user == account.group || stat(dir.c_str(), &status) != 0) return;
  if (status.st_gid != account.user || (status.st_mode & GROUP_BITS) == 0) return;
  messlog2("The session directory " + dir + " is open to group " + std::to_string(status.st_gid) +
           " (" + getGroupName(status.st_gid) +
           "), which is not the group of the account qrvadm: its members can read what is fetched");
}

}  // namespace

SessionFiles::SessionFiles(const std::string& path)
    : dir_(path), cidFilesDir_((fs::path(path) / "archives").string()) {
  if (!provideDirectory(dir_)) {
    throw Exc<&UnableToCreateSession>(HERE) % "Unable to create session directory";
  }
  if (!provideDirectory(cidFilesDir_)) {
    throw Exc<&UnableToCreateSession>(HERE) % "Unable to create session archives directory";
  }
  reportForeignGroup(dir_);
}

std::string SessionFiles::getDumpingStatusFileName() const {
  return dir_ + "/" + files::getRemoteDumpingStatusFileName();
}

void SessionFiles::remove() noexcept {
  boost::system::error_code ignored;
  fs::remove_all(dir_, ignored);
}

SessionFiles* theSession = nullptr;

SessionLifetimeController::SessionLifetimeController(const std::string& path) {
  theSession = new SessionFiles(path);
}

SessionLifetimeController::~SessionLifetimeController() {
  delete theSession;
  theSession = nullptr;
}
