#pragma once

#include <functional>
#include <memory>
#include <string>

#include "commons/progress_line.h"

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

  bool showsProgress() const { return line_ != nullptr; }
  /// Shows what `describe` says on the line of progress, as ProgressLine has it. Nothing
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
