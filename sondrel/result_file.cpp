#include "sondrel/result_file.h"

#include <sys/types.h>

namespace {

constexpr mode_t OUTPUT_UMASK = 022;

}  // namespace

ResultFile::ResultFile(const std::string& path) : ResultFile(path, UmaskGuard(OUTPUT_UMASK)) {}

ResultFile::ResultFile(const std::string& path, const UmaskGuard& /*mask*/) : OutputFile(path) {}

void ResultFile::finish() {
  // The result, which is on the disk itself, may say that this document is there.
  if (!syncAndClose()) throw Exc<&FileWrite>(HERE) % path() % errorText();
}

// --- Action ---
