#pragma once

#include <iosfwd>
#include <string>

#include "commons/unbuffered_streambuf.h"

/// `text` as it may be shown on a terminal: control characters, but for line ends and
/// tabs, and bytes that are not UTF-8 become "\x" and two hexadecimal digits.
std::string escapeForTerminal(const std::string& text);

/// While it lives, a stream whose descriptor is a terminal shows what is written to it
/// through escapeForTerminal: texts of a source host must not command the terminal of
/// whoever looks on. Other streams stay as they are, byte for byte.
class TerminalGuard {
 public:
  /// `stream` must outlive the guard.
  TerminalGuard(std::ostream& stream, int descriptor);
  ~TerminalGuard();
  TerminalGuard(const TerminalGuard&) = delete;
  TerminalGuard& operator=(const TerminalGuard&) = delete;

 private:
  /// Each write stands for itself: a character that comes in two of them is shown as
  /// bytes.
  class EscapingBuf : public UnbufferedStreamBuf {
   public:
    explicit EscapingBuf(std::streambuf* target) : target_(target) {}

   protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override;
    int sync() override;

   private:
    std::streambuf* target_;
  };

  std::ostream& stream_;
  std::streambuf* original_;
  EscapingBuf escaping_;
};
