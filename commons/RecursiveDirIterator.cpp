#include "commons/RecursiveDirIterator.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <log4cpp/Category.hh>
#include <utility>
#include <vector>

namespace fs = boost::filesystem;

namespace {

log4cpp::Category& walkLog = log4cpp::Category::getInstance("k.RecursiveDirIterator");

/// The directories from the start of a walk down to where it is: device and inode of each.
using Descent = std::vector<std::pair<dev_t, ino_t>>;

void walk(const fs::path& local, const fs::path& remote, const DirVisitor& visitor, Descent above);

void recursive_dir_walk_internal(const fs::directory_entry& entry, const fs::path& remoteParent,
                                 const DirVisitor& visitor, const Descent& above) {
  walk(entry.path(), remoteParent / entry.path().filename(), visitor, above);
}

void walk(const fs::path& local, const fs::path& remote, const DirVisitor& visitor, Descent above) {
  struct stat status;
  const bool isDirectory = stat(local.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  if (isDirectory) {
    const Descent::value_type identity(status.st_dev, status.st_ino);
    if (std::find(above.begin(), above.end(), identity) != above.end()) {
      walkLog.warn(local.string() + " leads back to a directory above it and is left out");
      return;
    }
    above.push_back(identity);
  }
  const bool walkInto = visitor(local, remote);
  if (!walkInto || !isDirectory) return;
  for (const fs::directory_entry& entry : fs::directory_iterator(local)) {
    recursive_dir_walk_internal(entry, remote, visitor, above);
  }
}

}  // namespace

void recursive_dir_walk_sync(const fs::path& localDir, const fs::path& remoteDir,
                             const DirVisitor& visitor) {
  walk(localDir, remoteDir, visitor, {});
}

void recursive_dir_walk(const fs::path& localDir, const DirVisitor& visitor) {
  recursive_dir_walk_sync(localDir, ".", visitor);
}
