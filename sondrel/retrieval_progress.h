#pragma once

#include <cstdint>
#include <ctime>

#include "commons/formats.h"
#include "sondrel/progress.h"
#include "transport/ssh-transfer.h"

/// Keeps the migration status up to date while content files come in.
class FileRetrievalProgressUpdater : public Ssh::Counter {
 public:
  /// `status` must outlive the updater, and so must `listed`, if it is given: the progress by
  /// what is listed, which a person is shown. With `tellsListed` it goes into the status, too.
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
