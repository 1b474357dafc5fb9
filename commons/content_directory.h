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

  /// Opens the file `name` for writing, with its missing directories made; a new file gets
  /// mode 0644, and what an older one holds is replaced as OutputFile says. One that has another
  /// name as well is refused, since what it holds is not this directory's alone. Throws
  /// SystemError, naming the part that failed.
  OutputFile create(const std::string& name) const;

  /// True when `name` leads to that very file: what was written may have been removed
  /// or moved since it was created.
  bool isInPlace(const std::string& name, const FileIdentity& written) const;

  /// Opens the file `name` for reading; no descriptor when it is not there, is no
  /// regular file or lies behind a symbolic link.
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
