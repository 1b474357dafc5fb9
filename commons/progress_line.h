#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "commons/unique_fd.h"

/// The last line of a terminal, redrawn while an action runs, and erased before other text is
/// shown.
///
/// Drawing and erasing never wait: where the terminal accepts nothing, as after Ctrl-S, they
/// do nothing. Nor do they while the process is in the background, where another process uses
/// the terminal and writing to it may stop this one.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  /// The line of this terminal. Null when it could not be seen: `descriptor` is no terminal, TERM
  /// is "dumb", or the terminal cannot be opened. The caller keeps the descriptor.
  static std::unique_ptr<ProgressLine> on(int descriptor, Now now = Clock::now);
  /// Erases it.
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Draws the text of `describe`, unless it is empty, cut by fitLine to the present width of the
  /// terminal. Draws at most ten times a second; other calls do not even call `describe`.
  void show(const std::function<std::string()>& describe);
  void erase();
  /// Erases it before the caller writes to the terminal; waits as that write would.
  void makeWay();
  /// Erases it and never draws it again. May be called from any thread.
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
  /// Guards the members below. No thread waits for the terminal while it holds the mutex.
  std::mutex mutex_;
  bool isShown_ = false;
  bool isClosed_ = false;
};

/// `text` as one line of at most `columns` columns: line ends and tabs become blanks, the rest is
/// as escapeForTerminal shows it. A character outside of ASCII counts as two columns.
std::string fitLine(const std::string& text, std::size_t columns);
