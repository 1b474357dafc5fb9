#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "commons/unique_fd.h"

/// The last line of a terminal, redrawn while something goes on, and erased before anything else
/// is shown.
///
/// Drawing and erasing never wait: where the terminal accepts nothing, as after Ctrl-S, they
/// do nothing. Nor do they while the process is in the background, where another process uses
/// the terminal and writing to it may stop this one.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  /// The line of this terminal; null where it could not be seen: `descriptor`, which stays
  /// the caller's, is no terminal, TERM is "dumb", or the terminal cannot be opened.
  static std::unique_ptr<ProgressLine> on(int descriptor, Now now = Clock::now);
  /// Erases it.
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Draws what `describe` says, if anything, cut by fitLine to the present width of
  /// the terminal. Not more than ten times a second: else `describe` is not even called.
  void show(const std::function<std::string()>& describe);
  void erase();
  /// Erases it before the caller writes to the terminal; waits as that write would.
  void makeWay();
  /// Erases it; it is never drawn again. From any thread.
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
  /// Guards what follows. No thread waits for the terminal while it holds it.
  std::mutex mutex_;
  bool isShown_ = false;
  bool isClosed_ = false;
};

/// `text` as one line of at most `columns` columns: line ends and tabs become blanks, the
/// rest is as escapeForTerminal shows it. A character beyond ASCII is taken to need two.
std::string fitLine(const std::string& text, std::size_t columns);
