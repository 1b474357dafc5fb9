#pragma once

#include <cstddef>
#include <string>

/// One character of a text.
struct Utf8Character {
  /// Its Unicode code point.
  unsigned int code;
  /// In bytes; 0 when the bytes are no character.
  std::size_t length;
};

/// Decodes the character that begins at `position`, which must be less than the size of `text`.
/// Overlong forms, surrogates and numbers above U+10FFFF are not characters.
Utf8Character decodeUtf8(const std::string& text, std::size_t position);
