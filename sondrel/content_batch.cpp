#include "sondrel/content_batch.h"

#include <algorithm>

#include "commons/ExSystemError.h"
#include "commons/checksum.h"
#include "commons/sh_quoting.h"
#include "sondrel/retrieval_progress.h"
#include "transport/ssh_channel.h"

namespace {

/// A larger file uses the whole connection by itself.
constexpr std::int64_t LARGEST_FILE_BYTES = std::int64_t{4} << 20;
/// The most that must be fetched again after a lost connection.
constexpr std::int64_t BATCH_BYTES = std::int64_t{32} << 20;
constexpr std::size_t BATCH_FILES = 1000;
/// Every server accepts this much input before the command reads any of it.
constexpr std::size_t BATCH_NAME_BYTES = std::size_t{60} << 10;
/// The prefix of each name in the archive.
const std::string MEMBER_DIRECTORY = "./";

std::size_t nameBytesOf(const DumpFile& file) {
  // One byte ends the name.
  return MEMBER_DIRECTORY.size() + file.name.size() + 1;
}

/// The member's name without the prefix.
std::string nameIn(const TarReader::Member& member) {
  const bool isBelow = member.name.compare(0, MEMBER_DIRECTORY.size(), MEMBER_DIRECTORY) == 0;
  return isBelow ? member.name.substr(MEMBER_DIRECTORY.size()) : member.name;
}

/// Why an archive is not whole.
std::string reasonOf(const BatchEnd& end) {
  if (!end.errorText.empty()) return end.errorText;
  if (!end.damage.empty()) return end.damage;
  return "exit status " + std::to_string(*end.exitStatus);
}

}  // namespace

// --- ContentBatch ---

bool ContentBatch::isFor(const DumpFile& file) {
  const bool isSmall = file.sizeIsListed && file.size >= 0 && file.size <= LARGEST_FILE_BYTES;
  // A batch must not have two names of one file, such as "a//b" and "a/b": what arrives as one of
  // them would count for the other, too.
  const bool isOnlyName = file.name.find("//") == std::string::npos;
  return isSmall && isOnlyName && nameBytesOf(file) <= BATCH_NAME_BYTES &&
         !hasBraceExpansion(file.name);
}

bool ContentBatch::has(const std::string& name) const {
  return names_.count(name) != 0;
}

bool ContentBatch::hasRoomFor(const DumpFile& file) const {
  return files_.size() < BATCH_FILES && contentBytes_ + file.size <= BATCH_BYTES &&
         nameBytes_ + nameBytesOf(file) <= BATCH_NAME_BYTES;
}

void ContentBatch::add(const DumpFile& file) {
  files_.push_back(&file);
  names_.insert(file.name);
  contentBytes_ += file.size;
  nameBytes_ += nameBytesOf(file);
}

std::vector<std::string> ContentBatch::names() const {
  std::vector<std::string> names;
  for (const DumpFile* file : files_) names.push_back(file->name);
  return names;
}

// --- BatchedFile ---

bool BatchedFile::isProven() const {
  return isStored && size == file->size && !file->md5.empty() && md5 == file->md5;
}

bool BatchEnd::hasComplained() const {
  return exitStatus && *exitStatus > 0 && *exitStatus < libssh2pp::Channel::FIRST_SIGNAL_STATUS;
}

// --- BatchReceiver ---

BatchReceiver::BatchReceiver(const ContentBatch& batch, const ContentDirectory& directory,
                             FileRetrievalProgressUpdater& progress)
    : directory_(directory), progress_(progress) {
  for (const DumpFile* file : batch.files()) {
    places_.emplace(MEMBER_DIRECTORY + file->name, files_.size());
    files_.emplace_back();
    files_.back().file = file;
  }
}

void BatchReceiver::receive(TarReader& archive) {
  while (archive.next()) {
    BatchedFile* const target = find(archive.member());
    if (!target || stopped_) continue;
    current_ = target;
    store(archive, *target);
    current_ = nullptr;
  }
}

/// The file of the batch for this member. Null for a member that must not be stored; the reason is
/// noted.
BatchedFile* BatchReceiver::find(const TarReader::Member& member) {
  const auto place = places_.find(member.name);
  if (place == places_.end()) {
    if (!surplus_) surplus_ = nameIn(member);
    return nullptr;
  }
  BatchedFile& target = files_[place->second];
  if (target.isStored) {
    target.failure = "The archive has it twice";
    target.isStored = false;
  } else if (!member.oddity.empty()) {
    target.failure = "In the archive " + member.oddity;
  } else if (target.failure.empty()) {
    return &target;
  }
  return nullptr;
}

void BatchReceiver::store(TarReader& archive, BatchedFile& target) {
  progress_.startFile(*target.file);
  try {
    storeContent(archive, target);
  } catch (const SystemError& e) {
    target.failure = e.what();
  }
  stopped_ = !target.isStored;
  if (!target.isStored) return;
  progress_.finishFile();
  target.isCounted = true;
}

void BatchReceiver::storeContent(TarReader& archive, BatchedFile& target) {
  Md5Sum sum;
  OutputFile local = directory_.create(target.file->name);
  local.setSum(&sum);
  sync_.add(local.descriptor());
  for (std::string_view bytes = archive.content(); !bytes.empty(); bytes = archive.content()) {
    local.stream().write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!local.stream()) break;
    progress_(static_cast<int>(bytes.size()));
  }
  target.isUnwritable = !local.stream();
  target.identity = local.identity();
  target.isStored = local.close();
  target.size = sum.size();
  target.md5 = sum.finish();
  if (!target.isStored) target.failure = local.errorText();
}

const BatchedFile& BatchReceiver::current() const {
  if (current_) return *current_;
  const auto open = std::find_if(files_.begin(), files_.end(), [](const BatchedFile& file) {
    return !file.isStored && file.failure.empty();
  });
  return open == files_.end() ? files_.front() : *open;
}

bool BatchReceiver::sync() {
  if (!sync_.sync()) return false;
  for (BatchedFile& file : files_) {
    if (!file.isStored || directory_.isInPlace(file.file->name, file.identity)) continue;
    file.isStored = false;
    file.failure = "The file is no longer there";
  }
  return true;
}

void BatchReceiver::explainMissing(const BatchEnd& end) {
  if (stopped_ || (end.hasComplained() && end.damage.empty())) return;
  for (BatchedFile& file : files_) {
    if (file.isStored || !file.failure.empty()) continue;
    if (end.isWhole()) {
      file.failure = "The archive does not have it";
    } else if (&file == &current()) {
      file.failure = reasonOf(end);
      return;
    }
  }
}
