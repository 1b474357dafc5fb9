#pragma once

#include <iosfwd>
#include <string>

#include "commons/unbuffered_streambuf.h"

/// `text` in a form that is safe on a terminal: control characters except line ends and tabs, and
/// bytes that are not UTF-8, become "\x" and two hexadecimal digits.
std::string escapeForTerminal(const std::string& text);

/// Writes all of `text`; waits while the terminal is stopped. Errors are ignored: a reader that has
/// gone must not stop the run.
void writeAll(int descriptor, const std::string& text);

class ProgressLine;

/// While it lives, a stream whose descriptor is a terminal shows what is written to it
/// through escapeForTerminal: texts of a source host must not control the terminal that
/// shows them. Other streams stay as they are, byte for byte.
class TerminalGuard {
 public:
  /// `line` is the progress line of that terminal, which is erased before each text; may be null.
  /// `stream` and `line` must outlive the guard.
  TerminalGuard(std::ostream& stream, int descriptor, ProgressLine* line = nullptr);
  ~TerminalGuard();
  TerminalGuard(const TerminalGuard&) = delete;
  TerminalGuard& operator=(const TerminalGuard&) = delete;

 private:
  /// Each write is escaped by itself: a character that is split over two writes is shown as bytes.
  class EscapingBuf : public UnbufferedStreamBuf {
   public:
    EscapingBuf(std::streambuf* target, ProgressLine* line) : target_(target), line_(line) {}

   protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override;
    int sync() override;

   private:
    std::streambuf* target_;
    ProgressLine* line_;
  };

  std::ostream& stream_;
  std::streambuf* original_;
  EscapingBuf escaping_;
};
