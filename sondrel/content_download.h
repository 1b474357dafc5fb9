#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "commons/collected_text.h"
#include "commons/content_directory.h"
#include "commons/exceptions.h"
#include "commons/formats.h"
#include "sondrel/options.h"
#include "transport/ssh-transfer.h"

DECLARE_ERROR_TAG(CantRetrieveContentFile,
                  "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%");

/// Makes the directory for content with its missing parents, for the service account. False with
/// errno on failure.
bool makeContentDir(const std::string& dir);

/// The download of the content files of one run: from one agent directory, through one connection,
/// into one directory here. Every failure is a CantRetrieveContentFile, which names both paths.
class ContentDownload {
 public:
  /// Size and sum of what came over the connection, computed while it was written.
  struct Received {
    std::int64_t bytes;
    std::string md5;
  };

  /// Connection and configuration must outlive the download. `dir` is where the files go.
  ContentDownload(Ssh& ssh, const config& config, const std::string& dir);

  /// Fetches one file. When this returns, the file is complete, on the disk and in its place.
  /// Returns its size and sum if `isSummed`, else nothing. Throws CantRetrieveContentFile.
  std::optional<Received> fetch(const DumpFile& file, Ssh::Counter& counter, bool isSummed) const;

  /// Makes the directory if it does not exist; false with errno on failure.
  bool makeDirectory() const { return makeContentDir(dir_); }
  const ContentDirectory& directory() const { return directory_; }

  /// An error for this file, with the place of the caller.
  Exc<&CantRetrieveContentFile> failure(const Place& place, const std::string& name,
                                        const std::string& reason) const;
  /// The same, with the error that caused it.
  Exc<&CantRetrieveContentFile> failure(const ExTraceable& cause, const Place& place,
                                        const std::string& name, const std::string& reason) const;

 private:
  void receive(const DumpFile& file, CollectedText& err, Ssh::Counter& counter, Md5Sum* sum) const;
  int runCommand(const DumpFile& file, OutputFile& local, CollectedText& err,
                 Ssh::Counter& counter) const;

  Ssh& ssh_;
  const config& config_;
  std::string dir_;
  ContentDirectory directory_;
};
