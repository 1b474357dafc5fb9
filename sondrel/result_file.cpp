#include "sondrel/result_file.h"

ResultFile::ResultFile(const std::string& path)
    : ResultFile(path, UmaskGuard(READABLE_BY_ALL_UMASK)) {}

ResultFile::ResultFile(const std::string& path, const UmaskGuard& /*mask*/) : OutputFile(path) {}

void ResultFile::finish() {
  // The result, which is on the disk itself, may say that this document is there.
  if (!syncAndClose()) throw Exc<&FileWrite>(HERE) % path() % errorText();
}

// --- Action ---
