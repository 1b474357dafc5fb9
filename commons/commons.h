#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"

DECLARE_ERROR_TAG(CantCreateTempFile,
                  "Can not create temporary file with the template '%1%': %2%.");
DECLARE_ERROR_TAG(CantStatFS, "Cannot stat filesystem containing %1%: %2%");

/// Creates a new, empty temporary file, mode 0600, and returns its name, which
/// begins with `prefix`. An empty `dir` means the configured directory for temporary
/// files. The caller overwrites or removes it. Throws CantCreateTempFile.
std::string DTM_getTempFileName(const std::string& dir, const std::string& prefix);
/// The same, with the file open for writing in `file`.
std::string DTM_getTempFileName(const std::string& dir, const std::string& prefix, UniqueFd& file);

/// Fills `buffer` with the NUL-terminated template of such a name.
void initTempName(std::vector<char>& buffer, const std::string& dir, const std::string& prefix);

/// Bytes that an unprivileged user can still write on the file system that holds
/// `path`. Throws CantStatFS.
std::uint64_t getFreeSpace(const std::string& path);

/// True when `path` is the name of an existing regular file; symbolic links are
/// followed. `flag` is not used.
bool check_input_file(const char* path, bool flag = false);

/// Creates the directory `path` and every missing parent, each with this owner, group and mode
/// (less the process's umask). Existing files and directories are not changed. 0 on success, else
/// non-zero with errno; a new directory that could not be synced or given to its owner is removed
/// again.
int make_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode);

/// The text after the last "/", or all of `path` when there is none.
std::string getFileNameFromPath(const std::string& path);

/// The text before the last "/", or nothing when there is none.
std::string getPath(const std::string& path);

/// The directory of `path`, in a form that system calls accept: "." for a bare name, "/" for an
/// entry of the root directory.
std::string getDirectoryOf(const std::string& path);

/// Syncs the directory of `path`: the content of a new directory survives a crash only if its own
/// entry does. False with errno.
bool syncDirectoryOf(const std::string& path);

/// The user and group that own the files which other programs read. 0 and 0 where the account does
/// not exist.
struct ServiceAccount {
  uid_t user;
  gid_t group;
};

/// The service account "qrvadm". Looked up once per process, because every save of a status
/// document needs it.
const ServiceAccount& serviceAccount();
