#pragma once

#include <string>

#include "commons/exceptions.h"
#include "commons/output_file.h"
#include "commons/umask_guard.h"

DECLARE_ERROR_TAG(FileWrite, "Error during %1% write: %2%");

/// The file for the result of an action: mode 0644 when new, whatever the process's umask is.
class ResultFile : public OutputFile {
 public:
  /// Creates or truncates the file. If that fails, every write fails.
  explicit ResultFile(const std::string& path);
  /// Syncs and closes the file. Throws FileWrite when it may be incomplete or missing.
  void finish();

 private:
  ResultFile(const std::string& path, const UmaskGuard& mask);
};
