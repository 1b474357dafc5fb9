#include "sondrel/retrieval_progress.h"

#include <limits>
#include <string>

namespace {

/// Subtracts without overflow: the number comes from another host's list and may be any number.
void countDown(std::int64_t& left, int bytes) {
  constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
  left = left < LEAST + bytes ? LEAST : left - bytes;
}

}  // namespace

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status,
                                                           std::int64_t totalBytes, int filesNumber,
                                                           ContentProgress* listed,
                                                           bool tellsListed)
    : status_(status),
      startTime_(std::time(nullptr)),
      bytesLeft_(totalBytes),
      filesLeft_(filesNumber),
      listed_(listed),
      tellsListed_(tellsListed) {
  status_.setTransferTotals(std::to_string(filesNumber), std::to_string(totalBytes));
}

void FileRetrievalProgressUpdater::startFile(const DumpFile& file) {
  if (listed_) listed_->startFile(file.name, file.size);
  tellListed();
  currentFileBytesLeft_ = file.size;
  status_.setCurrentFile(file.name, std::to_string(file.size));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::operator()(int bytes) {
  if (listed_) listed_->receive(bytes);
  tellListed();
  countDown(bytesLeft_, bytes);
  countDown(currentFileBytesLeft_, bytes);
  bytesReceived_ += bytes;
  const std::time_t now = std::time(nullptr);
  const std::int64_t rate = now == startTime_ ? 0 : bytesReceived_ / (now - startTime_);
  status_.setTransferSpeed(std::to_string(rate));
  status_.setTransferSizeLeft(std::to_string(bytesLeft_));
  status_.setTransferCurrentFileSizeLeft(std::to_string(currentFileBytesLeft_));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::finishFile() {
  if (listed_) listed_->finishFile();
  tellListed();
  --filesLeft_;
  status_.setTransferFilesLeft(std::to_string(filesLeft_));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::tellListed() {
  if (!tellsListed_ || !listed_ || !listed_->bytesTotal()) return;
  status_.setListedSizes(std::to_string(*listed_->bytesTotal()),
                         std::to_string(*listed_->bytesLeft()));
}
