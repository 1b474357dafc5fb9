#include "commons/RecursiveDirIterator.h"

#include <boost/filesystem/operations.hpp>

namespace fs = boost::filesystem;

namespace {

void recursive_dir_walk_internal(const fs::directory_entry& entry, const fs::path& remoteParent,
                                 const DirVisitor& visitor) {
  recursive_dir_walk_sync(entry.path(), remoteParent / entry.path().filename(), visitor);
}

}  // namespace

void recursive_dir_walk_sync(const fs::path& localDir, const fs::path& remoteDir,
                             const DirVisitor& visitor) {
  const bool walkInto = visitor(localDir, remoteDir);
  if (!walkInto || !fs::is_directory(localDir)) return;
  for (const fs::directory_entry& entry : fs::directory_iterator(localDir)) {
    recursive_dir_walk_internal(entry, remoteDir, visitor);
  }
}

void recursive_dir_walk(const fs::path& localDir, const DirVisitor& visitor) {
  recursive_dir_walk_sync(localDir, ".", visitor);
}
