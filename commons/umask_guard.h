#pragma once

#include <sys/stat.h>

/// The mask for files that other programs read: new files get mode 0644 and new directories 0755,
/// whatever the mask of the process is.
constexpr mode_t READABLE_BY_ALL_UMASK = 022;

/// Sets the process's file-creation mask and restores the old one, also when an
/// exception passes.
class UmaskGuard {
 public:
  explicit UmaskGuard(mode_t mask) : oldMask_(umask(mask)) {}
  ~UmaskGuard() { umask(oldMask_); }
  UmaskGuard(const UmaskGuard&) = delete;
  UmaskGuard& operator=(const UmaskGuard&) = delete;

 private:
  mode_t oldMask_;
};
