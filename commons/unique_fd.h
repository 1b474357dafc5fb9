#pragma once

#include <unistd.h>

#include <utility>

/// Owns a file descriptor and closes it. Moves, never copies; -1 stands for none.
///
/// A caller that must know whether closing failed calls `close` itself.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      close();
      fd_ = other.release();
    }
    return *this;
  }
  ~UniqueFd() { close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }

  /// Closes the descriptor if there is one; -1 with errno when that reports an
  /// error, which for a written file means lost data. The descriptor is gone
  /// either way.
  int close() { return fd_ < 0 ? 0 : ::close(release()); }

 private:
  int fd_ = -1;
};
