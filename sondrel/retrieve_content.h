#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sondrel/action.h"
#include "sondrel/content_batch.h"
#include "sondrel/content_download.h"
#include "sondrel/retrieval_progress.h"

DECLARE_ERROR_TAG(CantRetrieveContentList, "Error during content list retrieval: %1%");
DECLARE_ERROR_TAG(NotEnoughSpace,
                  "Selected filesystem has only %1% free space, but %2% is needed for operation");
DECLARE_ERROR_TAG(UnableToRemoveRemoteFile, "Unable to remove remote file '%1%' from '%2%': %3%");
DECLARE_ERROR_TAG(WrongMd5Sum,
                  "Problem during content retrieval: downloaded %1% has MD5 sum %2%, but it has to "
                  "be %3%. Restarting download.");
DECLARE_ERROR_TAG(WrongFileSize,
                  "Problem during content retrieval: downloaded %1% has %2% bytes, but the content "
                  "list says %3%");
DECLARE_ERROR_TAG(CantCompareFile,
                  "Problem during content retrieval: downloaded %1% may be other files that the "
                  "login shell takes its name for, and the content list has neither its size nor "
                  "its MD5 sum");
DECLARE_ERROR_TAG(ContentVerificationFailed,
                  "%1% of the retrieved files differ from the content list; their remote copies "
                  "were kept");

/// Fetches the content files that are not here yet, and removes each from the source
/// host once it is here.
class RetrieveContentAction : public Action {
 public:
  using Action::Action;
  /// Throws CantRetrieveDump, with the error that caused it.
  void execute() override;

  /// True when the entry has a sum and the local file has the same.
  bool checkMD5(const DumpFile& file);
  /// Records a WrongMd5Sum in the result log when the sums differ.
  void checkFile(const DumpFile& file);

 private:
  void retrieveContent();
  void createContentDir();
  std::unique_ptr<AgentFileList> requestContentList();
  void refuseUnsafeNames(const AgentFileList& list);
  void checkFreeSpace(const AgentFileList& list);
  void retrieveEntry(const DumpFile& file, FileRetrievalProgressUpdater& progress);
  void retrieveAlone(const DumpFile& file, Ssh::Counter& counter);
  bool isFetchedAsListed(const DumpFile& file, Ssh::Counter& counter);
  static bool isAsListed(const DumpFile& file, std::int64_t receivedBytes, const std::string& sum);
  void removeRemoteFile(const DumpFile& file);

  void retrieveBatch(FileRetrievalProgressUpdater& progress);
  BatchEnd receiveBatch(const ContentBatch& batch, BatchReceiver& receiver);
  static BatchEnd takeArchive(RemoteOutput& output, BatchReceiver& receiver);
  void finishBatch(BatchReceiver& receiver, const BatchEnd& end);
  Exc<&CantRetrieveContentFile> cantStore(const BatchedFile& file);
  void failForBatch(const BatchReceiver& receiver);
  void retrieveEachAlone(const BatchReceiver& receiver, FileRetrievalProgressUpdater& progress);
  void removeRemoteFiles(const std::vector<const DumpFile*>& files);
  void logRemovals(const std::vector<const DumpFile*>& files, int exitStatus,
                   const std::string& told, const std::string& errorText);
  void logRemovalFailure(const DumpFile& file, const std::string& reason) const;
  void tryRemoval(const std::vector<const DumpFile*>& files, const std::function<void()>& remove);

  std::string targetDir() const;
  ContentDownload& download();
  std::string localSum(const DumpFile& file);

  /// Made when it is needed first, with the connection.
  std::optional<ContentDownload> download_;
  /// True when this host's configuration demands that received files are compared with the list.
  bool verify_ = false;
  int filesUnlikeTheList_ = 0;
  /// True while small files are fetched in batches. Becomes false when the source host turns out to
  /// be unable to make them.
  bool batching_ = false;
  ContentBatch batch_;
};
