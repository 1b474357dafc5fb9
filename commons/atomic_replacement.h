#pragma once

#include <sys/types.h>

#include <string>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"

DECLARE_ERROR_TAG(CantRenameFile, "Cannot rename %1% to %2%: %3%");

/// What a crash of the machine may do to a file that was replaced.
enum class Durability {
  /// Nothing: the new content and its entry in the directory are on the disk.
  CRASH_SAFE,
  /// The file may be empty. For files that are replaced thousands of times in a run.
  CHEAP
};

/// Owner, group and mode of the new file.
struct FileAccess {
  uid_t user;
  gid_t group;
  mode_t mode;
};

/// Replaces a file in one step: the caller writes a temporary file beside it, which is then
/// given to its owner and moved over the target. Readers see the old content or the new,
/// never a part.
///
///   AtomicReplacement replacement(target);
///   write(replacement.temporaryName());
///   replacement.commit();
///
/// Without `commit`, as when writing failed, the temporary file is removed. After a
/// failed `commit` it is left in place, as evidence; after a failed `tryCommit` it is removed.
class AtomicReplacement {
 public:
  /// Creates the temporary file, for the service account alone. Throws CantCreateTempFile.
  explicit AtomicReplacement(const std::string& target,
                             Durability durability = Durability::CRASH_SAFE);
  /// The same, CRASH_SAFE, for a file of another owner and mode. The name of the temporary file is
  /// `prefix` and six random characters.
  AtomicReplacement(const std::string& target, const std::string& prefix, const FileAccess& access);
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
  /// The same for callers with error texts of their own: false with errno.
  bool tryCommit();

 private:
  bool giveAway() const;
  bool replaceTarget() const;
  bool syncTemporary() const;
  bool moveOverTarget() const;

  std::string target_;
  FileAccess access_;
  Durability durability_;
  UniqueFd temporary_;
  std::string temporaryName_;
  bool removeTemporary_ = true;
};
