#pragma once

#include <string>

#include "commons/exceptions.h"
#include "commons/output_file.h"
#include "commons/umask_guard.h"

DECLARE_ERROR_TAG(FileWrite, "Error during %1% write: %2%");

/// A file in which an action leaves its result: mode 0644 when new, whatever the
/// process's umask is.
class ResultFile : public OutputFile {
 public:
  /// Creates or truncates the file. When that fails every write to it will.
  explicit ResultFile(const std::string& path);
  /// Ends the writing. Throws FileWrite when a byte may be missing, or the file.
  void finish();

 private:
  ResultFile(const std::string& path, const UmaskGuard& mask);
};
