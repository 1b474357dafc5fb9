#pragma once

#include <sys/types.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "commons/checksum.h"
#include "commons/unbuffered_streambuf.h"
#include "commons/unique_fd.h"
#include "commons/write_behind.h"

/// Writes to a descriptor without a buffer of its own, so that a full disk is seen
/// at the write it hits. Continues short writes and interrupted ones.
class FdStreamBuf : public UnbufferedStreamBuf {
 public:
  /// Where the bytes go. The descriptor stays the caller's.
  enum Kind {
    PLAIN,
    /// A file that is synced at its end: parts of it are sent to the disk while more is written.
    /// The first write truncates it, or `discardOldContent` if there is none.
    CONTENT
  };
  explicit FdStreamBuf(int fd, Kind kind = PLAIN)
      : fd_(fd), kind_(kind), replacing_(kind == CONTENT) {}
  /// From now on a second thread writes and sums the content. It starts when the content is large
  /// enough. A failed write is reported by a later write, by `pubsync` or by `discardOldContent`;
  /// the sum must not be used before one of the last two.
  void writeBehind() { isBehindWanted_ = true; }
  /// Truncates the file if nothing has been written yet. False when that failed, or when earlier
  /// bytes could not be written.
  bool discardOldContent();
  /// From now on adds every written byte to `sum`, which must outlive the buffer or be replaced by
  /// the next call; null for none.
  void setSum(Md5Sum* sum) { sum_ = sum; }
  /// errno of the first write that failed, else 0.
  int error() const { return error_; }

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize size) override;
  int sync() override;

 private:
  bool truncate();
  void startBehind();
  std::streamsize writeNow(const char* bytes, std::streamsize size);
  void writeOut();

  int fd_;
  Kind kind_;
  bool replacing_;
  off_t written_ = 0;
  off_t writtenOut_ = 0;
  int error_ = 0;
  Md5Sum* sum_ = nullptr;
  bool isBehindWanted_ = false;
  /// Null until enough bytes were written. While its thread works the members above belong to that
  /// thread.
  std::unique_ptr<WriteBehind> behind_;
};

/// Identifies a file independently of its names.
struct FileIdentity {
  dev_t device;
  ino_t inode;
};

/// Syncs many files at once, which is cheaper than one by one.
class FileSystemSync {
 public:
  /// Copies the descriptor. Must be called before the first byte is written to the file: the kernel
  /// reports a write error only to descriptors that were open before it. Throws SystemError.
  void add(int descriptor);
  /// Syncs the file systems of the files, directories included. False with errno when a file may
  /// not be on the disk.
  bool sync();

 private:
  struct FileSystem {
    dev_t device;
    UniqueFd file;
  };
  std::vector<FileSystem> fileSystems_;
};

/// A local file that is being written.
///
/// Opening may fail; the stream is then in a bad state from the start and every write to it fails.
/// What was written is certain only after `close` or `syncAndClose` returned true; the destructor
/// closes the file and ignores errors.
class OutputFile {
 public:
  /// Creates or truncates `path`; a new file gets mode 0666 less the umask.
  explicit OutputFile(const std::string& path);
  /// Takes over a file that the caller opened in `directory`. `path` is for messages. The old
  /// content is kept until the first byte is written, or until the file is closed without one. So
  /// an attempt that fails before any byte arrives destroys nothing.
  OutputFile(const std::string& path, UniqueFd file, UniqueFd directory);

  bool isOpen() const { return static_cast<bool>(file_); }
  const std::string& path() const { return path_; }
  std::ostream& stream() { return stream_; }
  /// For FileSystemSync; -1 where the file could not be opened.
  int descriptor() const { return file_.get(); }
  /// Must be called before the file is closed.
  FileIdentity identity() const;
  /// From now on adds every written byte to `sum`, which must outlive this object.
  void setSum(Md5Sum* sum) { buffer_.setSum(sum); }
  /// Writes and sums a large file in a second thread while the caller produces more of it. A flush
  /// of the stream waits until all is written, and fails when that was impossible. Read the sum
  /// only after a flush or after closing.
  void writeBehind() { buffer_.writeBehind(); }

  /// True when every byte went to the system and closing reported no error.
  bool close();
  /// The same, and syncs the file and, if it is known, its directory.
  bool syncAndClose();
  /// The system's text for the first failure.
  std::string errorText() const;

 private:
  OutputFile(const std::string& path, UniqueFd file, UniqueFd directory, FdStreamBuf::Kind kind);
  bool noteFailure();

  std::string path_;
  UniqueFd file_;
  UniqueFd directory_;
  int error_ = 0;
  FdStreamBuf buffer_;
  std::ostream stream_;
};

/// Syncs a directory; false with errno when that fails. A file system that cannot sync directories
/// at all (EINVAL) is no failure.
bool syncDirectory(int directory);
