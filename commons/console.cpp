#include "commons/console.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ostream>

#include "commons/progress_line.h"
#include "commons/utf8.h"

namespace {

/// The second range has more control characters, which some terminals obey like those of ASCII.
bool isControl(unsigned int code) {
  return (code < 0x20 && code != '\n' && code != '\t') || (code >= 0x7F && code <= 0x9F);
}

std::string escaped(char byte) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
  return text;
}

}  // namespace

std::string escapeForTerminal(const std::string& text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size();) {
    const Utf8Character character = decodeUtf8(text, i);
    if (character.length > 0 && !isControl(character.code)) {
      shown.append(text, i, character.length);
      i += character.length;
    } else {
      shown += escaped(text[i++]);
    }
  }
  return shown;
}

void writeAll(int descriptor, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      return;
    }
  }
}

TerminalGuard::TerminalGuard(std::ostream& stream, int descriptor, ProgressLine* line)
    : stream_(stream), original_(stream.rdbuf()), escaping_(original_, line) {
  if (isatty(descriptor)) stream_.rdbuf(&escaping_);
}

TerminalGuard::~TerminalGuard() {
  stream_.rdbuf(original_);
}

std::streamsize TerminalGuard::EscapingBuf::xsputn(const char* bytes, std::streamsize size) {
  if (line_ && size > 0) line_->makeWay();
  const std::string shown = escapeForTerminal({bytes, static_cast<std::size_t>(size)});
  const auto length = static_cast<std::streamsize>(shown.size());
  return target_->sputn(shown.data(), length) == length ? size : 0;
}

int TerminalGuard::EscapingBuf::sync() {
  return target_->pubsync();
}
