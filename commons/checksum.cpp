#include "commons/checksum.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "commons/exceptions.h"

namespace {

constexpr std::size_t BLOCK_BYTES = 4096;

/// An MD5 computation. Failures of the library's set-up (no memory, MD5 switched
/// off on this host) are runtime errors: no file is to blame.
class Md5 {
 public:
  Md5() : context_(EVP_MD_CTX_new()) {
    check(context_ && EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr));
  }
  void add(const char* bytes, std::size_t size) {
    check(EVP_DigestUpdate(context_.get(), bytes, size));
  }
  std::string finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int size = 0;
    check(EVP_DigestFinal_ex(context_.get(), digest.data(), &size));
    return bin2ascii(digest.data(), size);
  }

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };
  static void check(bool succeeded) {
    if (!succeeded) throw std::runtime_error("MD5 is not available");
  }

  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

}  // namespace

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
  Md5 md5;
  std::array<char, BLOCK_BYTES> block;
  do {
    in.read(block.data(), block.size());
    // A stream that was never opened has failed without having come to an end.
    if (in.bad() || (in.fail() && !in.eof())) throw Exc<&StreamRead>(HERE);
    md5.add(block.data(), static_cast<std::size_t>(in.gcount()));
    if (betweenBlocks) betweenBlocks();
  } while (in);
  return md5.finish();
}

std::string countMd5Sum(const std::string& text) {
  Md5 md5;
  md5.add(text.data(), text.size());
  return md5.finish();
}
