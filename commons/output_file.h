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
    /// A file that will be synced: it is on its way to the disk while more is written.
    /// The first write, or `discardOldContent` if there is none, truncates it.
    CONTENT
  };
  explicit FdStreamBuf(int fd, Kind kind = PLAIN)
      : fd_(fd), kind_(kind), replacing_(kind == CONTENT) {}
  /// From now on a second thread writes and sums the content. It starts when the content is large
  /// enough. A failed write is reported by a later write, by `pubsync` or by `discardOldContent`;
  /// the sum must not be used before one of the last two.
  void writeBehind() { isBehindWanted_ = true; }
  /// False when what the file held could not be truncated, or what was taken could not be written.
  bool discardOldContent();
  /// From now on counts what was written; `sum` must outlive the buffer, or the next
  /// call, which may give null.
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
  /// Null before enough has come. While it is at work the members above are its thread's.
  std::unique_ptr<WriteBehind> behind_;
};

/// Which file it is, whatever its name.
struct FileIdentity {
  dev_t device;
  ino_t inode;
};

/// Puts many files on the disk at once: cheaper than one after the other.
class FileSystemSync {
 public:
  /// Must be called before the first byte is written to the file, whose descriptor is copied: the
  /// system reports a failure only to descriptors that were open before it. Throws SystemError.
  void add(int descriptor);
  /// Puts on the disk all that was written to the files' file systems, their directories included.
  /// False with errno when a file may not be there.
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
/// Opening may fail; the stream is then in a bad state from the start and every
/// write to it fails. What was written is certain only after `close` or
/// `syncAndClose` returned true; the destructor closes without asking.
class OutputFile {
 public:
  /// Creates or truncates `path`; a new file gets mode 0666 less the umask.
  explicit OutputFile(const std::string& path);
  /// Takes over a file that the caller opened in `directory`. `path` is for messages. What
  /// the file holds is kept until the first byte comes, or until it is closed without
  /// one: an attempt that brings nothing destroys nothing.
  OutputFile(const std::string& path, UniqueFd file, UniqueFd directory);

  bool isOpen() const { return static_cast<bool>(file_); }
  const std::string& path() const { return path_; }
  std::ostream& stream() { return stream_; }
  /// For FileSystemSync; -1 where the file could not be opened.
  int descriptor() const { return file_.get(); }
  /// Must be asked before the file is closed.
  FileIdentity identity() const;
  /// Counts from now on what goes into the file; `sum` must outlive it.
  void setSum(Md5Sum* sum) { buffer_.setSum(sum); }
  /// Writes and sums a large file in a thread of its own while more of it comes. A flush of the
  /// stream waits for all of it, and fails when that could not be written; before it, or after
  /// closing, the sum must not be looked at.
  void writeBehind() { buffer_.writeBehind(); }

  /// True when every byte went to the system and closing reported no error.
  bool close();
  /// The same, with the file and, if it is known, its directory on the disk as well.
  bool syncAndClose();
  /// The system's text for what failed first.
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

/// Puts a directory's entries on the disk; false with errno when that fails. A file
/// system that cannot sync directories at all (EINVAL) is no failure.
bool syncDirectory(int directory);
