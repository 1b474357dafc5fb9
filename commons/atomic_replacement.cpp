#include "commons/atomic_replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commons/commons.h"

namespace {

/// The mode of a file that mkstemp has made.
constexpr mode_t PRIVATE_MODE = 0600;

FileAccess ofServiceAccount() {
  const ServiceAccount& owner = serviceAccount();
  return {owner.user, owner.group, PRIVATE_MODE};
}

}  // namespace

AtomicReplacement::AtomicReplacement(const std::string& target, Durability durability)
    : AtomicReplacement(target, getFileNameFromPath(target), ofServiceAccount()) {
  durability_ = durability;
}

AtomicReplacement::AtomicReplacement(const std::string& target, const std::string& prefix,
                                     const FileAccess& access)
    : target_(target),
      access_(access),
      durability_(Durability::CRASH_SAFE),
      temporaryName_(DTM_getTempFileName(getDirectoryOf(target), prefix, temporary_)) {}

AtomicReplacement::~AtomicReplacement() {
  if (removeTemporary_) std::remove(temporaryName_.c_str());
}

void AtomicReplacement::commit() {
  removeTemporary_ = false;
  if (!giveAway()) {
    throw Exc<&CantTakeFileOwnership>(HERE) % temporaryName_ % std::strerror(errno);
  }
  if (!replaceTarget()) {
    throw Exc<&CantRenameFile>(HERE) % temporaryName_ % target_ % std::strerror(errno);
  }
}

bool AtomicReplacement::tryCommit() {
  removeTemporary_ = !(giveAway() && replaceTarget());
  return !removeTemporary_;
}

/// False with errno.
bool AtomicReplacement::giveAway() const {
  const char* const name = temporaryName_.c_str();
  return chown(name, access_.user, access_.group) == 0 &&
         (access_.mode == PRIVATE_MODE || chmod(name, access_.mode) == 0);
}

/// False with errno.
bool AtomicReplacement::replaceTarget() const {
  const bool crashSafe = durability_ == Durability::CRASH_SAFE;
  return (!crashSafe || syncTemporary()) && moveOverTarget() &&
         (!crashSafe || syncDirectoryOf(target_));
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
    // The target is a directory, which unlink cannot remove. Undo the exchange: a plain rename
    // would not have replaced the directory either.
    const int error = errno;
    exchange();
    errno = error;
    return false;
  }
  // There is no target yet, or the file system does not support exchanges.
  const bool mayRename = errno == ENOENT || errno == EINVAL || errno == ENOSYS;
  return mayRename && std::rename(from, to) == 0;
}
