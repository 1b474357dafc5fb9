#include "commons/atomic_replacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commons/commons.h"

AtomicReplacement::AtomicReplacement(const std::string& target, Durability durability)
    : target_(target),
      durability_(durability),
      temporaryName_(
          DTM_getTempFileName(getDirectoryOf(target), getFileNameFromPath(target), temporary_)) {}

AtomicReplacement::~AtomicReplacement() {
  if (removeTemporary_) std::remove(temporaryName_.c_str());
}

void AtomicReplacement::commit() {
  removeTemporary_ = false;
  const ServiceAccount& owner = serviceAccount();
  if (chown(temporaryName_.c_str(), owner.user, owner.group) != 0) {
    throw Exc<&CantTakeFileOwnership>(HERE) % temporaryName_ % std::strerror(errno);
  }
  const bool crashSafe = durability_ == Durability::CRASH_SAFE;
  if ((crashSafe && !syncTemporary()) || !moveOverTarget() ||
      (crashSafe && !syncDirectoryOf(target_))) {
    throw Exc<&CantRenameFile>(HERE) % temporaryName_ % target_ % std::strerror(errno);
  }
}

/// Syncs the file, also what was written through other descriptors. False with errno.
bool AtomicReplacement::syncTemporary() const {
  return fsync(temporary_.get()) == 0 || errno == EINVAL;
}

/// False with errno, the target being untouched.
bool AtomicReplacement::moveOverTarget() const {
  const char* const from = temporaryName_.c_str();
  const char* const to = target_.c_str();
  const auto exchange = [&] {
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE) == 0;
  };
  if (durability_ == Durability::CRASH_SAFE) return std::rename(from, to) == 0;
  if (exchange()) {
    if (unlink(from) == 0) return true;
    // A directory, which a rename would not have moved away either.
    const int error = errno;
    exchange();
    errno = error;
    return false;
  }
  // There is no target yet, or the file system knows nothing of exchanges.
  const bool mayRename = errno == ENOENT || errno == EINVAL || errno == ENOSYS;
  return mayRename && std::rename(from, to) == 0;
}
