#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <string>

/// Each byte as two lower-case hexadecimal digits.
std::string bin2ascii(const unsigned char* bytes, std::size_t size);

/// The MD5 sum of all that `in` still holds, as 32 lower-case hexadecimal digits.
/// `betweenBlocks`, if given, is called after each block of 4096 bytes, for those
/// who have to show life during a long count. Throws StreamRead.
std::string countMd5Sum(std::istream& in, const std::function<void()>& betweenBlocks = {});

/// The MD5 sum of the bytes of `text`.
std::string countMd5Sum(const std::string& text);
