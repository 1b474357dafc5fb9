#include "commons/content_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <climits>
#include <vector>

#include "commons/ExSystemError.h"
#include "commons/commons.h"
#include "commons/umask_guard.h"

namespace {

constexpr mode_t CONTENT_DIR_MODE = 0755;
constexpr mode_t NEW_FILE_MODE = 0666;

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> components;
  boost::split(components, path, boost::is_any_of("/"), boost::token_compress_on);
  return components;
}

bool isRegularFile(const UniqueFd& fd) {
  struct stat status;
  return fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode);
}

/// 0, or the error number that says why root must not write into the opened file.
int refusalToWrite(const UniqueFd& fd) {
  struct stat status;
  if (fstat(fd.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  return status.st_nlink > 1 ? EMLINK : 0;
}

}  // namespace

ContentDirectory::ContentDirectory(std::string path, uid_t owner, gid_t group)
    : path_(std::move(path)), owner_(owner), group_(group) {}

OutputFile ContentDirectory::create(const std::string& name) const {
  // Its directories could be made part by part, but no program could open the whole path.
  if (pathOf(name).size() >= PATH_MAX) throwSystemError(pathOf(name), ENAMETOOLONG);
  const UmaskGuard mask(READABLE_BY_ALL_UMASK);
  UniqueFd directory = openParent(name, true);
  // O_NONBLOCK: a FIFO in the file's place must not stop the run. No O_TRUNC: it may be a hard
  // link to a file of another account.
  const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  UniqueFd file(openat(directory.get(), getFileNameFromPath(name).c_str(), flags, NEW_FILE_MODE));
  if (!file) throwSystemError(pathOf(name), errno);
  if (const int error = refusalToWrite(file)) throwSystemError(pathOf(name), error);
  return OutputFile(pathOf(name), std::move(file), std::move(directory));
}

UniqueFd ContentDirectory::openExisting(const std::string& name) const {
  try {
    const UniqueFd directory = openParent(name, false);
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd file(openat(directory.get(), getFileNameFromPath(name).c_str(), flags));
    if (file && isRegularFile(file)) return file;
  } catch (const SystemError&) {
    // A missing directory is a missing file.
  }
  return {};
}

bool ContentDirectory::isInPlace(const std::string& name, const FileIdentity& written) const {
  const UniqueFd file = openExisting(name);
  struct stat status;
  return file && fstat(file.get(), &status) == 0 && status.st_dev == written.device &&
         status.st_ino == written.inode;
}

UniqueFd ContentDirectory::openParent(const std::string& name, bool makeMissing) const {
  UniqueFd directory(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) throwSystemError(path_, errno);
  std::vector<std::string> components = splitPath(name);
  components.pop_back();
  for (const std::string& component : components) {
    directory = openOrMakeDirectory(directory.get(), component, makeMissing);
  }
  return directory;
}

UniqueFd ContentDirectory::openOrMakeDirectory(int parent, const std::string& name,
                                               bool makeMissing) const {
  const bool made = makeMissing && mkdirat(parent, name.c_str(), CONTENT_DIR_MODE) == 0;
  if (makeMissing && !made && errno != EEXIST) throwSystemError(name, errno);
  UniqueFd directory(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) throwSystemError(name, errno);
  if (made && (fchown(directory.get(), owner_, group_) != 0 || !syncDirectory(parent))) {
    const int error = errno;
    // If it stayed, the next run would use it although its owner or its entry on the disk is wrong.
    unlinkat(parent, name.c_str(), AT_REMOVEDIR);
    throwSystemError(name, error);
  }
  return directory;
}

int make_content_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
  const UmaskGuard mask(READABLE_BY_ALL_UMASK);
  return make_dir(path, owner, group, mode);
}

std::string whyUnsafeName(const std::string& name) {
  if (name.empty()) return "the name is empty";
  if (name.find('\0') != std::string::npos) return "the name holds a zero byte";
  if (name.front() == '/') return "the name is absolute";
  if (name.back() == '/') return "the name ends in '/'";
  for (const std::string& component : splitPath(name)) {
    if (component == "." || component == "..") {
      return "the name has '" + component + "' as a component";
    }
  }
  return {};
}
