#pragma once

#include <stdexcept>
#include <string>

/// A failed call of the operating system: what failed, and the error number.
/// Outside the tagged exceptions, as it says nothing about the migration.
class SystemError : public std::runtime_error {
 public:
  /// A `code` of 0 means the present errno.
  SystemError(const std::string& text, int code);

  int code() const noexcept { return code_; }

  /// "text: system's text", or the system's text alone when the text is empty.
  const char* what() const noexcept override;

 private:
  int code_;
  mutable std::string rendered_;
};

/// System errors that a caller may want to catch by themselves; exists for EPERM,
/// ENOENT, EINTR, ECHILD and EAGAIN only.
template <int Code>
class ExSystemError : public SystemError {
 public:
  using SystemError::SystemError;
};

/// Throws ExSystemError<code> where that exists, else SystemError. The choice is
/// made from `code` as given: 0 gives a plain SystemError for the present errno,
/// whichever that is.
[[noreturn]] void throwSystemError(const std::string& text, int code);
