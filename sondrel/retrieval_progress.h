#pragma once

#include <cstdint>
#include <ctime>

#include "commons/formats.h"
#include "sondrel/progress.h"
#include "transport/ssh-transfer.h"

/// Keeps the migration status up to date while content files come in.
class FileRetrievalProgressUpdater : public Ssh::Counter {
 public:
  /// `listed`, if given, is the progress by the listed sizes, which an observer sees; with
  /// `tellsListed` the status contains it, too. `status` and `listed` must outlive the updater.
  FileRetrievalProgressUpdater(MigrationStatus& status, std::int64_t totalBytes, int filesNumber,
                               ContentProgress* listed = nullptr, bool tellsListed = false);

  void startFile(const DumpFile& file);
  /// Counts received bytes and saves the status.
  void operator()(int bytes) override;
  void finishFile();

 private:
  void tellListed();

  MigrationStatus& status_;
  std::time_t startTime_;
  std::int64_t bytesReceived_ = 0;
  std::int64_t bytesLeft_;
  int filesLeft_;
  std::int64_t currentFileBytesLeft_ = 0;
  ContentProgress* listed_;
  bool tellsListed_;
};
