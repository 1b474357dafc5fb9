#include "commons/progress_line.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "commons/console.h"
#include "commons/utf8.h"

namespace {

constexpr std::chrono::milliseconds BETWEEN_DRAWINGS{100};
constexpr std::size_t USUAL_COLUMNS = 80;
const std::string ERASE_LINE = "\r\x1b[K";

bool isSmart(int descriptor) {
  const char* const kind = std::getenv("TERM");
  return isatty(descriptor) && !(kind && std::string(kind) == "dumb");
}

}  // namespace

std::unique_ptr<ProgressLine> ProgressLine::on(int descriptor, Now now) {
  if (!isSmart(descriptor)) return nullptr;
  // Other processes that share the descriptor share its flags, so O_NONBLOCK needs a descriptor of
  // our own.
  const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
  UniqueFd terminal(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!terminal) return nullptr;
  return std::unique_ptr<ProgressLine>(
      new ProgressLine(descriptor, std::move(terminal), std::move(now)));
}

ProgressLine::ProgressLine(int descriptor, UniqueFd terminal, Now now)
    : descriptor_(descriptor), terminal_(std::move(terminal)), now_(std::move(now)) {}

ProgressLine::~ProgressLine() {
  erase();
}

void ProgressLine::show(const std::function<std::string()>& describe) {
  const Clock::time_point now = now_();
  if (now < nextDrawing_) return;
  const std::string text = describe();
  if (text.empty()) return;
  nextDrawing_ = now + BETWEEN_DRAWINGS;
  // The last column stays free: some terminals begin a new line when it is filled.
  const std::string drawing = ERASE_LINE + fitLine(text, columns() - 1);
  const std::lock_guard<std::mutex> lock(mutex_);
  if (isClosed_ || !mayWrite()) return;
  // After a partial write the next drawing shows the whole line.
  if (write(drawing) > 0) isShown_ = true;
}

void ProgressLine::erase() {
  const std::lock_guard<std::mutex> lock(mutex_);
  eraseShown();
}

void ProgressLine::makeWay() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!isShown_) return;
    isShown_ = false;
  }
  writeAll(descriptor_, ERASE_LINE);
}

void ProgressLine::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  eraseShown();
  isClosed_ = true;
}

/// A line that cannot be erased now is erased later, before the next text.
void ProgressLine::eraseShown() {
  if (isShown_ && mayWrite()) isShown_ = write(ERASE_LINE) != ERASE_LINE.size();
}

std::size_t ProgressLine::columns() const {
  winsize size{};
  if (ioctl(terminal_.get(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return USUAL_COLUMNS;
  return size.ws_col;
}

/// False in the background. tcgetpgrp fails for a terminal that does not control this process;
/// writing to it is allowed.
bool ProgressLine::mayWrite() const {
  const pid_t foreground = tcgetpgrp(terminal_.get());
  return foreground < 0 || foreground == getpgrp();
}

/// The number of bytes that the terminal took.
std::size_t ProgressLine::write(const std::string& text) {
  const ssize_t written = ::write(terminal_.get(), text.data(), text.size());
  return written < 0 ? 0 : static_cast<std::size_t>(written);
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
