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

/// Computes the MD5 sum and the size of data that is added part by part. Throws std::runtime_error
/// when the library has no MD5 or no memory: then no file is to blame.
class Md5Sum {
 public:
  Md5Sum();
  void add(const char* bytes, std::size_t size);
  std::int64_t size() const { return size_; }
  /// 32 lower-case hexadecimal digits. Must be called once, after the last part.
  std::string finish();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };

  std::unique_ptr<EVP_MD_CTX, Free> context_;
  std::int64_t size_ = 0;
};

/// The MD5 sum of the rest of `in`, as 32 lower-case hexadecimal digits. `betweenBlocks`, if given,
/// is called after each block of 4096 bytes, for a caller that must keep a connection alive
/// meanwhile. Throws StreamRead.
std::string countMd5Sum(std::istream& in, const std::function<void()>& betweenBlocks = {});

/// The MD5 sum of the bytes of `text`.
std::string countMd5Sum(const std::string& text);
