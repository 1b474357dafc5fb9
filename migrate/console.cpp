#include "migrate/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "commons/console.h"
#include "commons/utf8.h"

namespace migrate {

namespace {

constexpr std::chrono::milliseconds BETWEEN_DRAWINGS{100};
constexpr std::size_t USUAL_COLUMNS = 80;
const char* const ERASE_LINE = "\r\x1b[K";

/// All of it, if the system takes it; a reader that went away is no reason to stop.
void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      return;
    }
  }
}

std::size_t columnsOf(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return USUAL_COLUMNS;
  return size.ws_col;
}

}  // namespace

Console::Console() : outIsTerminal_(isatty(STDOUT_FILENO)), showsProgress_(isatty(STDERR_FILENO)) {}

Console::~Console() {
  finishRelay();
  eraseProgress();
}

std::string Console::presentable(const std::string& text, bool isTerminal) const {
  return isTerminal ? escapeForTerminal(text) : text;
}

void Console::say(const std::string& line) {
  eraseProgress();
  writeAll(STDOUT_FILENO, presentable(line + "\n", outIsTerminal_));
}

void Console::complain(const std::string& line) {
  eraseProgress();
  writeAll(STDERR_FILENO, presentable(line + "\n", showsProgress_));
}

void Console::relay(const std::string& bytes) {
  if (bytes.empty()) return;
  if (showsProgress_) {
    // A character may come in two parts, and progress must not be drawn into a line.
    pending_ += bytes;
    const std::string::size_type end = pending_.rfind('\n');
    if (end == std::string::npos) return;
    eraseProgress();
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

void Console::showProgress(const std::string& text) {
  if (!showsProgress_ || text.empty()) return;
  const auto now = std::chrono::steady_clock::now();
  if (progressIsShown_ && now - lastDrawn_ < BETWEEN_DRAWINGS) return;
  lastDrawn_ = now;
  progressIsShown_ = true;
  // The last column stays free: some terminals begin a new line when it is filled.
  writeAll(STDERR_FILENO, ERASE_LINE + fitLine(text, columnsOf(STDERR_FILENO) - 1));
}

void Console::eraseProgress() {
  if (!progressIsShown_) return;
  progressIsShown_ = false;
  writeAll(STDERR_FILENO, ERASE_LINE);
}

std::string fitLine(const std::string& text, std::size_t columns) {
  std::string line = escapeForTerminal(text);
  std::size_t used = 0;
  std::size_t end = 0;
  while (end < line.size()) {
    const std::size_t length = std::max<std::size_t>(decodeUtf8(line, end).length, 1);
    used += length > 1 ? 2 : 1;
    if (used > columns) break;
    end += length;
  }
  line.resize(end);
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
  return line;
}

}  // namespace migrate
