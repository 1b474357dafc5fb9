#include "commons/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

bool FdStreamBuf::finish() {
  if (replacing_ && ftruncate(fd_, 0) != 0) {
    error_ = errno;
    return false;
  }
  replacing_ = false;
  return true;
}

std::streamsize FdStreamBuf::xsputn(const char* bytes, std::streamsize size) {
  if (size > 0 && !finish()) return 0;
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
  return done;
}

OutputFile::OutputFile(const std::string& path)
    : OutputFile(path, UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
                 UniqueFd(), false) {}

OutputFile::OutputFile(const std::string& path, UniqueFd file, UniqueFd folder)
    : OutputFile(path, std::move(file), std::move(folder), true) {}

OutputFile::OutputFile(const std::string& path, UniqueFd file, UniqueFd folder, bool replaceContent)
    : path_(path),
      file_(std::move(file)),
      folder_(std::move(folder)),
      error_(file_ ? 0 : errno),
      buffer_(file_.get(), replaceContent),
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
  const bool complete = file_ && stream_.good() && buffer_.finish();
  if (file_.close() != 0) return noteFailure();
  return complete;
}

bool OutputFile::syncAndClose() {
  if (!buffer_.finish()) return false;
  // EINVAL: nothing on the way to a disk, as with a device.
  if (file_ && fdatasync(file_.get()) != 0 && errno != EINVAL) return noteFailure();
  if (!close()) return false;
  if (folder_ && !syncFolder(folder_.get())) return noteFailure();
  return true;
}

std::string OutputFile::errorText() const {
  return std::strerror(buffer_.error() ? buffer_.error() : error_);
}

bool syncFolder(int folder) {
  return fsync(folder) == 0 || errno == EINVAL;
}
