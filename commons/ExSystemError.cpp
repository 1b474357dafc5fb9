#include "commons/ExSystemError.h"

#include <cerrno>
#include <cstring>
#include <exception>

SystemError::SystemError(const std::string& text, int code)
    : std::runtime_error(text), code_(code ? code : errno) {}

const char* SystemError::what() const noexcept {
  if (!rendered_.empty()) return rendered_.c_str();
  const char* text = std::runtime_error::what();
  try {
    std::string rendered = text;
    if (!rendered.empty()) rendered += ": ";
    rendered += std::strerror(code_);
    rendered_.swap(rendered);
  } catch (const std::exception&) {
    // No memory to render it: the bare text still says what failed.
    return text;
  }
  return rendered_.c_str();
}

void throwSystemError(const std::string& text, int code) {
  switch (code) {
    case EPERM: throw ExSystemError<EPERM>(text, code);
    case ENOENT: throw ExSystemError<ENOENT>(text, code);
    case EINTR: throw ExSystemError<EINTR>(text, code);
    case ECHILD: throw ExSystemError<ECHILD>(text, code);
    case EAGAIN: throw ExSystemError<EAGAIN>(text, code);
    default: throw SystemError(text, code);
  }
}
