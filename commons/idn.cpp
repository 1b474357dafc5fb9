#include "commons/idn.h"

#include <idna.h>

#include <memory>

#include "hostlib/free_memory.h"

namespace idn {

namespace {

using Converter = int (*)(const char* input, char** output, int flags);

std::string convert(Converter converter, const std::string& domain) {
  char* raw = nullptr;
  const int code = converter(domain.c_str(), &raw, 0);
  const std::unique_ptr<char, FreeMemory> output(raw);
  if (code != IDNA_SUCCESS) throw IdnaError(code);
  return output ? output.get() : std::string();
}

}  // namespace

const char* IdnaError::what() const noexcept {
  return idn_strerror(code_);
}

const char* idn_strerror(int code) noexcept {
  switch (code) {
    case 0: return "Success";
    case 1: return "Stringprep error";
    case 2: return "Punycode error";
    case 3: return "Contains non-LDH characters";
    case 4: return "Contains minus";
    case 5: return "Invalid length";
    case 6: return "ACE prefix not found";
    case 7: return "Verify error";
    case 8: return "ACE prefix found";
    case 9: return "Iconv error";
    case 201: return "Cannot allocate buffer";
    default: return "Unknown error";
  }
}

std::string toAscii(const std::string& domain) {
  return convert(idna_to_ascii_8z, domain);
}

std::string toUtf8(const std::string& domain) {
  return convert(idna_to_unicode_8z8z, domain);
}

std::string emailToAscii(const std::string& email) {
  const std::string::size_type at = email.find('@');
  if (at == std::string::npos) return email;
  return email.substr(0, at + 1) + toAscii(email.substr(at + 1));
}

}  // namespace idn
