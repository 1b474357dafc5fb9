#pragma once

#include <sys/types.h>

#include <string>

#include "commons/output_file.h"
#include "commons/unique_fd.h"

/// Creates files below a directory that belongs to an account which is trusted less
/// than this process.
///
/// Everything below the directory is opened through descriptors that refuse symbolic
/// links, so that no account that can write there can redirect a write. Names are
/// relative and free of "." and ".." (see whyUnsafeName).
class ContentDirectory {
 public:
  /// New directories get this owner and group and mode 0755.
  ContentDirectory(std::string path, uid_t owner, gid_t group);

  /// Opens the file `name` for writing and makes its missing directories. A new file gets mode
  /// 0644; the content of an existing one is replaced as OutputFile says. A file with several hard
  /// links is refused: another name of it may be outside of this directory. Throws SystemError,
  /// naming the part of the path that failed.
  OutputFile create(const std::string& name) const;

  /// True when `name` still leads to the file `written`: that may have been removed or moved since
  /// it was created.
  bool isInPlace(const std::string& name, const FileIdentity& written) const;

  /// Opens the file `name` for reading. No descriptor when the file does not exist, is no regular
  /// file or is behind a symbolic link.
  UniqueFd openExisting(const std::string& name) const;

  std::string pathOf(const std::string& name) const { return path_ + "/" + name; }

 private:
  UniqueFd openParent(const std::string& name, bool makeMissing) const;
  UniqueFd openOrMakeDirectory(int parent, const std::string& name, bool makeMissing) const;

  std::string path_;
  uid_t owner_;
  gid_t group_;
};

/// Creates the directory `path` and its missing parents under umask 022. 0 on success,
/// else non-zero with errno.
int make_content_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode);

/// Why `name`, which came from another host, must not be used below a directory: it is
/// empty, absolute, ends in "/", has "." or ".." as a component, or holds a zero
/// byte. Empty when it may be used.
std::string whyUnsafeName(const std::string& name);
