#include "commons/checksum.h"

#include <array>
#include <cstdio>
#include <stdexcept>

#include "commons/exceptions.h"

namespace {

constexpr std::size_t BLOCK_BYTES = 4096;

void check(bool succeeded) {
  if (!succeeded) throw std::runtime_error("MD5 is not available");
}

}  // namespace

Md5Sum::Md5Sum() : context_(EVP_MD_CTX_new()) {
  check(context_ && EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr));
}

void Md5Sum::add(const char* bytes, std::size_t size) {
  check(EVP_DigestUpdate(context_.get(), bytes, size));
  size_ += static_cast<std::int64_t>(size);
}

std::string Md5Sum::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned int size = 0;
  check(EVP_DigestFinal_ex(context_.get(), digest.data(), &size));
  return bin2ascii(digest.data(), size);
}

std::string bin2ascii(const unsigned char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

std::string countMd5Sum(std::istream& in, const std::function<void()>& betweenBlocks) {
  Md5Sum md5;
  std::array<char, BLOCK_BYTES> block;
  do {
    in.read(block.data(), block.size());
    // A stream that was never opened has failed without reaching an end.
    if (in.bad() || (in.fail() && !in.eof())) throw Exc<&StreamRead>(HERE);
    md5.add(block.data(), static_cast<std::size_t>(in.gcount()));
    if (betweenBlocks) betweenBlocks();
  } while (in);
  return md5.finish();
}

std::string countMd5Sum(const std::string& text) {
  Md5Sum md5;
  md5.add(text.data(), text.size());
  return md5.finish();
}
