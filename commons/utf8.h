#pragma once

#include <cstddef>
#include <string>

/// One character of a text.
struct Utf8Character {
  /// Unicode's number for it.
  unsigned int code;
  /// In bytes; 0 when the bytes are no character.
  std::size_t length;
};

/// The character that begins at `position` of `text`, which must be inside. Forms
/// longer than needed, surrogates and numbers past U+10FFFF are none.
Utf8Character decodeUtf8(const std::string& text, std::size_t position);
