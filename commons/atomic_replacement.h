#pragma once

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
  /// Creates the temporary file. Throws CantCreateTempFile.
  explicit AtomicReplacement(const std::string& target,
                             Durability durability = Durability::CRASH_SAFE);
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
  Durability durability_;
  UniqueFd temporary_;
  std::string temporaryName_;
  bool removeTemporary_ = true;
};
