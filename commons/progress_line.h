#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "commons/unique_fd.h"

/// A line at the end of what a terminal shows, which is drawn over again while something
/// goes on, and is gone when anything else is to be shown.
///
/// Drawing and erasing never wait: where the terminal takes nothing, as after Ctrl-S, they
/// do nothing. Nor do they while the process is in the background, where the terminal is
/// somebody else's and writing to it may stop the process.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  /// The line of this terminal; null where nobody would see it: `descriptor`, which stays
  /// the caller's, is no terminal, TERM is "dumb", or the terminal cannot be opened.
  static std::unique_ptr<ProgressLine> on(int descriptor, Now now = Clock::now);
  /// Erases it.
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Draws what `describe` says, if anything, as fitLine has it for the present width of
  /// the terminal. Not more than ten times a second: else `describe` is not even called.
  void show(const std::function<std::string()>& describe);
  void erase();
  /// Erases it for somebody who is about to write to the terminal; waits as he will.
  void makeWay();
  /// Erases it, and has it never drawn again. From any thread.
  void close();

 private:
  ProgressLine(int descriptor, UniqueFd terminal, Now now);
  std::size_t columns() const;
  bool mayWrite() const;
  std::size_t write(const std::string& text);
  void eraseShown();

  int descriptor_;
  UniqueFd terminal_;
  Now now_;
  Clock::time_point nextDrawing_;
  /// Guards what follows. Nobody waits for the terminal under it.
  std::mutex mutex_;
  bool isShown_ = false;
  bool isClosed_ = false;
};

/// `text` as one line of at most `columns` columns: line ends and tabs become blanks, the
/// rest is as escapeForTerminal shows it. A character beyond ASCII is taken to need two.
std::string fitLine(const std::string& text, std::size_t columns);
