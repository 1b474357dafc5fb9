#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "commons/content_directory.h"
#include "commons/formats.h"
#include "commons/output_file.h"
#include "commons/tar_archive.h"

class FileRetrievalProgressUpdater;

/// Content files that are transferred together: one command fetches them, another removes them on
/// the source host.
class ContentBatch {
 public:
  /// True for a file that belongs into a batch: it is listed as small, and its name means that
  /// file alone to tar.
  static bool isFor(const DumpFile& file);

  bool isEmpty() const { return files_.empty(); }
  bool has(const std::string& name) const;
  bool hasRoomFor(const DumpFile& file) const;
  /// `file` must outlive the batch.
  void add(const DumpFile& file);

  const std::vector<const DumpFile*>& files() const { return files_; }
  std::vector<std::string> names() const;

 private:
  std::vector<const DumpFile*> files_;
  std::set<std::string> names_;
  std::int64_t contentBytes_ = 0;
  std::size_t nameBytes_ = 0;
};

/// The result for one file of a batch.
struct BatchedFile {
  const DumpFile* file = nullptr;
  /// Every byte of the member is stored and its file is closed.
  bool isStored = false;
  /// Why it is not stored; empty also for a file that has not arrived.
  std::string failure;
  /// The failure is that its content could not be written here.
  bool isUnwritable = false;
  FileIdentity identity{};
  std::int64_t size = 0;
  std::string md5;
  /// The progress counts it as done.
  bool isCounted = false;

  /// True when it is stored, with the size and the sum that the list gives. Errors elsewhere in the
  /// archive do not matter for such a file.
  bool isProven() const;
};

/// How the archive of a batch ended.
struct BatchEnd {
  /// Nothing if the end of the command was not awaited.
  std::optional<int> exitStatus;
  /// What is wrong with the archive itself; empty when it is whole.
  std::string damage;
  /// What the command wrote to its error output.
  std::string errorText;
  bool isEmpty = true;

  bool isWhole() const { return damage.empty() && exitStatus == 0; }
  /// True when the command ended by itself, with an error status.
  bool hasComplained() const;
  /// True when the source host cannot make such an archive: the command failed without any output.
  bool isUnableTo() const { return isEmpty && hasComplained(); }
};

/// Stores the members of an archive as the files of a batch. Members that were not requested are
/// skipped and reported.
class BatchReceiver {
 public:
  /// All of them must outlive the receiver.
  BatchReceiver(const ContentBatch& batch, const ContentDirectory& directory,
                FileRetrievalProgressUpdater& progress);

  /// Reads all members. After one file could not be stored here, no other one is stored. Throws
  /// ArchiveDamaged, and what the source of the archive throws; `files` then shows how far it came.
  void receive(TarReader& archive);
  /// The results, in the order of the batch.
  std::vector<BatchedFile>& files() { return files_; }
  const std::vector<BatchedFile>& files() const { return files_; }
  /// The first member that was not requested, if there is one.
  const std::optional<std::string>& surplus() const { return surplus_; }
  /// The file that was arriving when `receive` threw; else the first that has not arrived, or the
  /// first of all.
  const BatchedFile& current() const;
  /// Syncs the stored files, and checks that each is in its place; one that is not counts as not
  /// stored any more. False with errno when syncing failed: then any of them may be missing on the
  /// disk.
  bool sync();
  /// After a whole archive, records a failure for each file that was not in it; after a damaged one
  /// only for the file that was arriving. Records none when tar complained about a file: it does
  /// not say which, so each missing file is fetched by a command of its own.
  void explainMissing(const BatchEnd& end);

 private:
  BatchedFile* find(const TarReader::Member& member);
  void store(TarReader& archive, BatchedFile& target);
  void storeContent(TarReader& archive, BatchedFile& target);

  const ContentDirectory& directory_;
  FileRetrievalProgressUpdater& progress_;
  std::vector<BatchedFile> files_;
  /// For each expected name of a member, the index of its file.
  std::map<std::string, std::size_t> places_;
  FileSystemSync sync_;
  BatchedFile* current_ = nullptr;
  std::optional<std::string> surplus_;
  bool stopped_ = false;
};
