#include "commons/commons.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "commons/files.h"
#include "commons/output_file.h"
#include "commons/unique_fd.h"
#include "hostlib/accounts.h"
#include "hostlib/qrv_conf.h"

namespace {

constexpr std::size_t TEMP_NAME_BYTES = 4096;

std::string getTempBaseDir(const std::string& dir) {
  if (!dir.empty()) return dir;
  const char* configured = qrvConfGet("DUMP_TMP_D");
  return configured ? configured : files::getTmpDir();
}

}  // namespace

std::string getDirectoryOf(const std::string& path) {
  if (path.find('/') == std::string::npos) return ".";
  const std::string directory = getPath(path);
  return directory.empty() ? "/" : directory;
}

bool syncDirectoryOf(const std::string& path) {
  const UniqueFd directory(open(getDirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory && syncDirectory(directory.get());
}

void initTempName(std::vector<char>& buffer, const std::string& dir, const std::string& prefix) {
  buffer.reserve(TEMP_NAME_BYTES);
  const std::string base = getTempBaseDir(dir);
  buffer.assign(base.begin(), base.end());
  if (buffer.empty() || buffer.back() != '/') buffer.push_back('/');
  const std::string name = prefix + "XXXXXX";
  buffer.insert(buffer.end(), name.begin(), name.end());
  buffer.push_back('\0');
}

std::string DTM_getTempFileName(const std::string& dir, const std::string& prefix) {
  UniqueFd file;
  return DTM_getTempFileName(dir, prefix, file);
}

std::string DTM_getTempFileName(const std::string& dir, const std::string& prefix, UniqueFd& file) {
  std::vector<char> name;
  initTempName(name, dir, prefix);
  // mkstemp may spoil the template when it fails.
  const std::string nameTemplate = name.data();
  file = UniqueFd(mkstemp(name.data()));
  if (!file) throw Exc<&CantCreateTempFile>(HERE) % nameTemplate % std::strerror(errno);
  return name.data();
}

std::uint64_t getFreeSpace(const std::string& path) {
  struct statfs status;
  if (statfs(path.c_str(), &status) != 0) {
    throw Exc<&CantStatFS>(HERE) % path % std::strerror(errno);
  }
  const auto blockSize = static_cast<std::int32_t>(status.f_bsize);
  return static_cast<std::uint64_t>(status.f_bavail) *
         static_cast<std::uint64_t>(static_cast<std::int64_t>(blockSize));
}

bool check_input_file(const char* path, bool /*flag*/) {
  if (!path || *path == '\0') return false;
  struct stat status;
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

int make_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0) return 0;
  if (errno != ENOENT) return -1;
  const std::string::size_type slash = path.rfind('/');
  if (slash != std::string::npos && slash != 0) {
    if (const int failed = make_dir(path.substr(0, slash), owner, group, mode)) return failed;
  }
  // "a/b/" names a directory that the step above has just made as "a/b".
  if (mkdir(path.c_str(), mode) != 0) {
    return errno == EEXIST && stat(path.c_str(), &status) == 0 ? 0 : -1;
  }
  if (syncDirectoryOf(path) && chown(path.c_str(), owner, group) == 0) return 0;
  // If it stayed, the next run would use it although its owner or its entry on the disk is wrong.
  const int error = errno;
  rmdir(path.c_str());
  errno = error;
  return -1;
}

std::string getFileNameFromPath(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string getPath(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

const ServiceAccount& serviceAccount() {
  static const ServiceAccount account = {korvo_ugid("qrvadm", UGID_USER),
                                         korvo_ugid("qrvadm", UGID_GROUP)};
  return account;
}
