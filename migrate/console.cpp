#include "migrate/console.h"

#include <unistd.h>

#include "commons/console.h"

namespace migrate {

Console::Console()
    : outIsTerminal_(isatty(STDOUT_FILENO)),
      errIsTerminal_(isatty(STDERR_FILENO)),
      line_(ProgressLine::on(STDERR_FILENO)) {}

Console::~Console() {
  finishRelay();
}

std::string Console::presentable(const std::string& text, bool isTerminal) {
  return isTerminal ? escapeForTerminal(text) : text;
}

void Console::makeWay() {
  if (line_) line_->makeWay();
}

void Console::say(const std::string& line) {
  // Only makeWay waits for a stopped terminal: a line that goes to a file must not.
  if (outIsTerminal_) {
    makeWay();
  } else {
    eraseProgress();
  }
  writeAll(STDOUT_FILENO, presentable(line + "\n", outIsTerminal_));
}

void Console::complain(const std::string& line) {
  makeWay();
  writeAll(STDERR_FILENO, presentable(line + "\n", errIsTerminal_));
}

void Console::relay(const std::string& bytes) {
  if (bytes.empty()) return;
  if (errIsTerminal_) {
    // Whole lines only: a character may arrive in two parts, and progress must not be drawn into an
    // unfinished line.
    pending_ += bytes;
    const std::string::size_type end = pending_.rfind('\n');
    if (end == std::string::npos) return;
    makeWay();
    writeAll(STDERR_FILENO, escapeForTerminal(pending_.substr(0, end + 1)));
    pending_.erase(0, end + 1);
  } else {
    writeAll(STDERR_FILENO, bytes);
    relayedLineIsOpen_ = bytes.back() != '\n';
  }
}

void Console::finishRelay() {
  if (!pending_.empty()) complain(pending_);
  pending_.clear();
  if (relayedLineIsOpen_) writeAll(STDERR_FILENO, "\n");
  relayedLineIsOpen_ = false;
}

void Console::showProgress(const std::function<std::string()>& describe) {
  if (line_) line_->show(describe);
}

void Console::eraseProgress() {
  if (line_) line_->erase();
}

}  // namespace migrate
