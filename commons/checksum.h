#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <string>

/// Each byte as two lower-case hexadecimal digits.
std::string bin2ascii(const unsigned char* bytes, std::size_t size);

/// The MD5 sum and the number of bytes that come one part after the other. Throws
/// std::runtime_error where the library has no MD5 or no memory: no file is to blame.
class Md5Sum {
 public:
  Md5Sum();
  void add(const char* bytes, std::size_t size);
  std::int64_t size() const { return size_; }
  /// 32 lower-case hexadecimal digits. To be called once, after the last part.
  std::string finish();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };

  std::unique_ptr<EVP_MD_CTX, Free> context_;
  std::int64_t size_ = 0;
};

/// The MD5 sum of all that `in` still holds, as 32 lower-case hexadecimal digits.
/// `betweenBlocks`, if given, is called after each block of 4096 bytes, for those
/// who have to show life during a long count. Throws StreamRead.
std::string countMd5Sum(std::istream& in, const std::function<void()>& betweenBlocks = {});

/// The MD5 sum of the bytes of `text`.
std::string countMd5Sum(const std::string& text);
