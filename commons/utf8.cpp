#include "commons/utf8.h"

namespace {

constexpr Utf8Character NO_CHARACTER = {0, 0};

/// What the first byte of a character says about it. `length` is 0 for a byte that cannot be the
/// first one.
struct Lead {
  std::size_t length;
  unsigned int bits;
  /// The smallest value that needs this many bytes.
  unsigned int smallest;
};

Lead decodeLead(unsigned char byte) {
  if (byte < 0x80) return {1, byte, 0};
  if ((byte & 0xE0) == 0xC0) return {2, byte & 0x1Fu, 0x80};
  if ((byte & 0xF0) == 0xE0) return {3, byte & 0x0Fu, 0x800};
  if ((byte & 0xF8) == 0xF0) return {4, byte & 0x07u, 0x10000};
  return {0, 0, 0};
}

bool isCodePoint(unsigned int code) {
  return code <= 0xD7FF || (code >= 0xE000 && code <= 0x10FFFF);
}

}  // namespace

Utf8Character decodeUtf8(const std::string& text, std::size_t position) {
  const Lead lead = decodeLead(static_cast<unsigned char>(text[position]));
  if (lead.length == 0 || position + lead.length > text.size()) return NO_CHARACTER;
  unsigned int code = lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[position + i]);
    if ((byte & 0xC0) != 0x80) return NO_CHARACTER;
    code = code << 6 | (byte & 0x3Fu);
  }
  if (code < lead.smallest || !isCodePoint(code)) return NO_CHARACTER;
  return {code, lead.length};
}
