#include "commons/session.h"

#include <boost/filesystem.hpp>

#include "commons/commons.h"
#include "commons/files.h"
#include "hostlib/accounts.h"

namespace fs = boost::filesystem;

namespace {

constexpr mode_t SESSION_DIR_MODE = 0750;

/// True when `path` is a directory afterwards; what is there already is not changed.
bool provideDirectory(const fs::path& path) {
  boost::system::error_code ignored;
  if (!fs::exists(path, ignored)) {
    // The number of the account's user serves as the group's.
    make_dir(path.string(), 0, get_user_id("qrvadm"), SESSION_DIR_MODE);
  }
  return fs::is_directory(path, ignored);
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
