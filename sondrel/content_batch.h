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

/// Content files that travel together: one command brings them, another removes them.
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

/// What became of one file of a batch.
struct BatchedFile {
  const DumpFile* file = nullptr;
  /// Every byte of the member is stored and its file is closed.
  bool isStored = false;
  /// Why it is not; empty, too, for a file that did not come.
  std::string failure;
  /// Its content could not be written, which is the cause of the failure.
  bool isUnwritable = false;
  FileIdentity identity{};
  std::int64_t size = 0;
  std::string md5;
  /// The progress counts it as done.
  bool isCounted = false;

  /// True when it is stored and is what the list says, sum included: nothing that went wrong
  /// elsewhere in the archive matters then.
  bool isProven() const;
};

/// How the archive of a batch ended.
struct BatchEnd {
  /// None where the command was not waited for.
  std::optional<int> exitStatus;
  /// What is wrong with the archive itself; empty when it is whole.
  std::string damage;
  /// What the command wrote to its error output.
  std::string errorText;
  bool isEmpty = true;

  bool isWhole() const { return damage.empty() && exitStatus == 0; }
  /// True when the command complained, and did not die of it.
  bool hasComplained() const;
  /// True when there is no tar there that does what is asked of it.
  bool isUnableTo() const { return isEmpty && hasComplained(); }
};

/// Stores the members of an archive as the files of a batch that they are asked to be. What is in
/// the archive besides harms nothing, and is reported.
class BatchReceiver {
 public:
  /// All of them must outlive the receiver.
  BatchReceiver(const ContentBatch& batch, const ContentDirectory& directory,
                FileRetrievalProgressUpdater& progress);

  /// Takes all members. Once a file cannot be stored here, no further one is. Throws
  /// ArchiveDamaged, and what the source of the archive throws; `files` says then how far it came.
  void receive(TarReader& archive);
  /// In the order of the batch.
  std::vector<BatchedFile>& files() { return files_; }
  const std::vector<BatchedFile>& files() const { return files_; }
  /// The first member that was not asked for, if there is one.
  const std::optional<std::string>& surplus() const { return surplus_; }
  /// The file that was coming when `receive` threw; else the first that has not come, or the first
  /// of all.
  const BatchedFile& current() const;
  /// Puts the stored files on the disk, and looks for each in its place. Those that are not there
  /// are not stored any more. False with errno when none may be on the disk.
  bool sync();
  /// Records a failure for each file that has no result yet. Not where tar has complained: it does
  /// not say about which file, so each is fetched by a command of its own.
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
