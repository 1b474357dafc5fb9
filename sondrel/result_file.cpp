#include "sondrel/result_file.h"

ResultFile::ResultFile(const std::string& path)
    : ResultFile(path, UmaskGuard(READABLE_BY_ALL_UMASK)) {}

ResultFile::ResultFile(const std::string& path, const UmaskGuard& /*mask*/) : OutputFile(path) {}

void ResultFile::finish() {
  // Synced, because the result log is: after a crash it may say that this document exists.
  if (!syncAndClose()) throw Exc<&FileWrite>(HERE) % path() % errorText();
}

// --- Action ---
