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
DECLARE_ERROR_TAG(CantRenameFile, "Cannot rename %1% to %2%: %3%");

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

/// Creates the directory `path` and every missing parent, each with this owner, group
/// and mode (less the process's umask). Whatever exists already, directory or not,
/// stays as it is. 0 on success, else non-zero with errno; a directory that could not be
/// given to the owner does not stay.
int make_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode);

/// The text after the last "/", or all of `path` when there is none.
std::string getFileNameFromPath(const std::string& path);

/// The text before the last "/", or nothing when there is none.
std::string getPath(const std::string& path);

/// The directory in which `path` lies, as a name that can be used as one.
std::string getFolderOf(const std::string& path);

/// Puts the entry `path` of its directory on the disk: a new directory's content is safe
/// only when its own entry is. False with errno.
bool syncFolderOf(const std::string& path);

/// The user and group that own what other programs are to read. 0 and 0 where the
/// account does not exist.
struct ServiceAccount {
  uid_t user;
  gid_t group;
};

/// The service account "qrvadm", looked up once per process: every save of a
/// status document asks.
const ServiceAccount& serviceAccount();

/// Replaces a file in one step: the caller writes a temporary file beside it, which is then
/// given to the service account and moved over the target. Readers see the old
/// content or the new, never a part.
///
///   AtomicReplacement replacement(target);
///   write(replacement.temporaryName());
///   replacement.commit();
///
/// Without `commit`, as when writing failed, the temporary file is removed. After a
/// failed `commit` it is left in place, as evidence.
class AtomicReplacement {
 public:
  /// CRASH_SAFE: the new content and its entry in the directory are on the disk after `commit`.
  /// CHEAP: for files replaced thousands of times in a run; may be empty after a crash of the
  /// machine.
  enum Price { CRASH_SAFE, CHEAP };

  /// Creates the temporary file. Throws CantCreateTempFile.
  explicit AtomicReplacement(const std::string& target, Price price = CRASH_SAFE);
  ~AtomicReplacement();
  AtomicReplacement(const AtomicReplacement&) = delete;
  AtomicReplacement& operator=(const AtomicReplacement&) = delete;

  const std::string& temporaryName() const { return temporaryName_; }
  /// The temporary file, open for writing.
  int descriptor() const { return temporary_.get(); }
  /// For a CHEAP replacement. False with errno when what was written to the descriptor may be
  /// lost.
  bool close() { return temporary_.close() == 0; }

  /// Throws CantTakeFileOwnership or CantRenameFile; the target is then untouched, or, if only
  /// its directory could not be put on the disk, replaced.
  void commit();

 private:
  bool syncTemporary() const;
  bool moveOverTarget() const;

  std::string target_;
  Price price_;
  UniqueFd temporary_;
  std::string temporaryName_;
  bool removeTemporary_ = true;
};

/// Sets the process's file-creation mask and restores the old one, also when an
/// exception passes.
class UmaskGuard {
 public:
  explicit UmaskGuard(mode_t mask);
  ~UmaskGuard();
  UmaskGuard(const UmaskGuard&) = delete;
  UmaskGuard& operator=(const UmaskGuard&) = delete;

 private:
  mode_t oldMask_;
};
