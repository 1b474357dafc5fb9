#pragma once

#include <exception>
#include <string>

/// Conversion of international domain names.
namespace idn {

/// A name that cannot be converted. Carries the library's result code; what() is
/// the text for it.
class IdnaError : public std::exception {
 public:
  explicit IdnaError(int code) : code_(code) {}
  int code() const { return code_; }
  const char* what() const noexcept override;

 private:
  int code_;
};

/// The text for a result code of the library; "Unknown error" for other numbers.
const char* idn_strerror(int code) noexcept;

/// The ASCII-compatible form of a UTF-8 domain name. Throws IdnaError.
std::string toAscii(const std::string& domain);

/// The UTF-8 form of an ASCII-compatible domain name. Throws IdnaError.
std::string toUtf8(const std::string& domain);

/// An e-mail address with its domain, what follows the first at sign, in the
/// ASCII-compatible form. Text without an at sign stays as it is. Throws IdnaError.
std::string emailToAscii(const std::string& email);

}  // namespace idn
