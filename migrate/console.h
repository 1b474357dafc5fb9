#pragma once

#include <functional>
#include <memory>
#include <string>

#include "commons/progress_line.h"

namespace migrate {

/// The console of sondrel-migrate: reports go to standard output, errors and, on a terminal, a
/// progress line to standard error. On a terminal control characters are shown as "\x1b" and the
/// like, because much of the text comes from another host.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Writes a line to standard output.
  void say(const std::string& line);
  /// Writes a line to standard error.
  void complain(const std::string& line);
  /// Writes to standard error what a child wrote to its own, as it arrives; on a terminal whole
  /// lines only.
  void relay(const std::string& bytes);
  /// Writes an unfinished line of `relay`, with a line end. Must be called when the child has
  /// ended.
  void finishRelay();

  bool showsProgress() const { return line_ != nullptr; }
  /// Shows the text of `describe` on the progress line; see ProgressLine::show. Does nothing
  /// without a terminal.
  void showProgress(const std::function<std::string()>& describe);
  void eraseProgress();

 private:
  static std::string presentable(const std::string& text, bool isTerminal);
  void makeWay();

  bool outIsTerminal_;
  bool errIsTerminal_;
  std::unique_ptr<ProgressLine> line_;
  bool relayedLineIsOpen_ = false;
  std::string pending_;
};

}  // namespace migrate
