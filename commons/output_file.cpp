#include "commons/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <log4cpp/Category.hh>
#include <system_error>

#include "commons/ExSystemError.h"

namespace {

log4cpp::Category& outputLog = log4cpp::Category::getInstance("k.OutputFile");

/// How many bytes are sent to the disk at a time while more arrive.
constexpr off_t WRITE_OUT_BYTES = 8 << 20;
/// To write a smaller file takes less time than to start a thread.
constexpr off_t WRITE_BEHIND_FROM_BYTES = 1 << 20;

}  // namespace

bool FdStreamBuf::discardOldContent() {
  return sync() == 0 && truncate();
}

int FdStreamBuf::sync() {
  return !behind_ || behind_->drain() ? 0 : -1;
}

bool FdStreamBuf::truncate() {
  if (replacing_ && ftruncate(fd_, 0) != 0) {
    error_ = errno;
    return false;
  }
  replacing_ = false;
  return true;
}

std::streamsize FdStreamBuf::xsputn(const char* bytes, std::streamsize size) {
  if (behind_) return behind_->put(bytes, static_cast<std::size_t>(size)) ? size : 0;
  if (size > 0 && !truncate()) return 0;
  const std::streamsize done = writeNow(bytes, size);
  if (isBehindWanted_ && done == size && written_ >= WRITE_BEHIND_FROM_BYTES) startBehind();
  return done;
}

void FdStreamBuf::startBehind() {
  isBehindWanted_ = false;
  try {
    behind_ = std::make_unique<WriteBehind>([this](const char* bytes, std::size_t size) {
      const auto count = static_cast<std::streamsize>(size);
      return writeNow(bytes, count) == count;
    });
  } catch (const std::system_error& e) {
    // This thread can write as well, only slower.
    outputLog.debug(std::string("There is no second thread to write a file: ") + e.what());
  }
}

std::streamsize FdStreamBuf::writeNow(const char* bytes, std::streamsize size) {
  std::streamsize done = 0;
  while (done < size) {
    const ssize_t written = write(fd_, bytes + done, static_cast<std::size_t>(size - done));
    if (written >= 0) {
      done += written;
    } else if (errno != EINTR) {
      if (error_ == 0) error_ = errno;
      break;
    }
  }
  if (sum_) sum_->add(bytes, static_cast<std::size_t>(done));
  written_ += done;
  if (kind_ == CONTENT && written_ - writtenOut_ >= WRITE_OUT_BYTES) writeOut();
  return done;
}

/// Only starts the transfer to the disk; an error shows when the file is synced.
void FdStreamBuf::writeOut() {
  sync_file_range(fd_, writtenOut_, written_ - writtenOut_, SYNC_FILE_RANGE_WRITE);
  writtenOut_ = written_;
}

void FileSystemSync::add(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) throwSystemError("fstat", errno);
  for (const FileSystem& known : fileSystems_) {
    if (known.device == status.st_dev) return;
  }
  UniqueFd copy(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!copy) throwSystemError("dup", errno);
  fileSystems_.push_back({status.st_dev, std::move(copy)});
}

bool FileSystemSync::sync() {
  return std::all_of(fileSystems_.begin(), fileSystems_.end(),
                     [](const FileSystem& known) { return syncfs(known.file.get()) == 0; });
}

OutputFile::OutputFile(const std::string& path)
    : OutputFile(path, UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
                 UniqueFd(), FdStreamBuf::PLAIN) {}

OutputFile::OutputFile(const std::string& path, UniqueFd file, UniqueFd directory)
    : OutputFile(path, std::move(file), std::move(directory), FdStreamBuf::CONTENT) {}

OutputFile::OutputFile(const std::string& path, UniqueFd file, UniqueFd directory,
                       FdStreamBuf::Kind kind)
    : path_(path),
      file_(std::move(file)),
      directory_(std::move(directory)),
      error_(file_ ? 0 : errno),
      buffer_(file_.get(), kind),
      stream_(&buffer_) {
  if (!file_) stream_.setstate(std::ios::badbit);
}

FileIdentity OutputFile::identity() const {
  struct stat status {};
  fstat(file_.get(), &status);
  return {status.st_dev, status.st_ino};
}

bool OutputFile::noteFailure() {
  if (error_ == 0) error_ = errno;
  return false;
}

bool OutputFile::close() {
  // The second thread must have finished before the descriptor is closed.
  const bool isWritten = buffer_.pubsync() == 0;
  const bool complete = file_ && stream_.good() && isWritten && buffer_.discardOldContent();
  if (file_.close() != 0) return noteFailure();
  return complete;
}

bool OutputFile::syncAndClose() {
  if (!buffer_.discardOldContent()) return false;
  // EINVAL: the file cannot be synced, as for example a device.
  if (file_ && fdatasync(file_.get()) != 0 && errno != EINVAL) return noteFailure();
  if (!close()) return false;
  if (directory_ && !syncDirectory(directory_.get())) return noteFailure();
  return true;
}

std::string OutputFile::errorText() const {
  return std::strerror(buffer_.error() ? buffer_.error() : error_);
}

bool syncDirectory(int directory) {
  return fsync(directory) == 0 || errno == EINVAL;
}
