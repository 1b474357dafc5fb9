#pragma once

#include <ostream>
#include <string>

#include "commons/unbuffered_streambuf.h"

/// Keeps what a remote command writes, up to a limit: another host must not use up the memory of
/// this one.
class CollectedText : public std::ostream {
 public:
  /// What happens to the bytes beyond the limit.
  enum Excess {
    /// They are left out; `str` says how many.
    LEAVE_OUT,
    /// The stream fails.
    REFUSE
  };

  /// Enough for the error output of any command.
  static constexpr std::size_t DEFAULT_LIMIT = std::size_t{4} << 20;

  explicit CollectedText(std::size_t limit = DEFAULT_LIMIT, Excess excess = LEAVE_OUT);

  std::string str() const;

 private:
  class Buf : public UnbufferedStreamBuf {
   public:
    Buf(std::size_t limit, Excess excess) : limit_(limit), excess_(excess) {}
    std::string str() const;

   protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override;

   private:
    std::size_t limit_;
    Excess excess_;
    std::string kept_;
    std::size_t leftOut_ = 0;
  };

  Buf buffer_;
};
