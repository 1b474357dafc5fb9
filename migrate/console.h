#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace migrate {

/// What a person or a caller sees: reports on standard output, errors and, where that is a
/// terminal, a line of progress on standard error. On a terminal control characters are
/// shown as "\x1b" and the like, for much of the text comes from another host.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// A line on standard output.
  void say(const std::string& line);
  /// A line on standard error.
  void complain(const std::string& line);
  /// What a child wrote to its standard error, as it comes; on a terminal a line at a time.
  void relay(const std::string& bytes);
  /// Shows the rest of such a line, with an end. To be called when the child has ended.
  void finishRelay();

  bool showsProgress() const { return showsProgress_; }
  /// Redraws the line of progress: cut to the width of the terminal, and not more than ten
  /// times a second. Nothing without a terminal.
  void showProgress(const std::string& text);
  void eraseProgress();

 private:
  std::string presentable(const std::string& text, bool isTerminal) const;

  bool outIsTerminal_;
  bool showsProgress_;
  bool progressIsShown_ = false;
  bool relayedLineIsOpen_ = false;
  std::string pending_;
  std::chrono::steady_clock::time_point lastDrawn_;
};

/// `text` as one line of at most `columns` columns: line ends and tabs become blanks, the
/// rest is as escapeForTerminal shows it. A character beyond ASCII is taken to need two.
std::string fitLine(const std::string& text, std::size_t columns);

}  // namespace migrate
