#pragma once

#include <iosfwd>
#include <string>

#include "commons/unbuffered_streambuf.h"

/// `text` as it may be shown on a terminal: control characters, but for line ends and
/// tabs, and bytes that are not UTF-8 become "\x" and two hexadecimal digits.
std::string escapeForTerminal(const std::string& text);

/// Writes all of `text`, if the system takes it: a reader that went away is no reason to
/// stop. Waits for a terminal that is stopped.
void writeAll(int descriptor, const std::string& text);

class ProgressLine;

/// While it lives, a stream whose descriptor is a terminal shows what is written to it
/// through escapeForTerminal: texts of a source host must not control the terminal that
/// shows them. Other streams stay as they are, byte for byte.
class TerminalGuard {
 public:
  /// `stream` must outlive the guard, and so must `line`: the line of that terminal, which
  /// makes way for each text, or null.
  TerminalGuard(std::ostream& stream, int descriptor, ProgressLine* line = nullptr);
  ~TerminalGuard();
  TerminalGuard(const TerminalGuard&) = delete;
  TerminalGuard& operator=(const TerminalGuard&) = delete;

 private:
  /// Each write stands for itself: a character that comes in two of them is shown as
  /// bytes.
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
