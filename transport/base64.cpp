#include "transport/base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>

namespace {

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::string toBase64(const std::string& bytes) {
  // A zero byte follows, which does not count.
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytesOf(bytes),
                                   static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  return text;
}

std::optional<std::string> fromBase64(const std::string& text) {
  std::string bytes(text.size() / 4 * 3 + 3, '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), bytesOf(text),
                                   static_cast<int>(text.size()));
  if (size < 0) return std::nullopt;
  // It counts what fills the last group up.
  const auto padding = std::min<std::ptrdiff_t>(2, std::count(text.begin(), text.end(), '='));
  bytes.resize(static_cast<std::size_t>(size - padding));
  return bytes;
}
