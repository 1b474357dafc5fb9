#include "transport/private_key.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "commons/unique_fd.h"
#include "transport/base64.h"

namespace {

/// Much more than the longest key.
constexpr std::size_t LARGEST_FILE_BYTES = 64 << 10;

/// Parses the fields of the OpenSSH format in front of the private part. Numbers are four bytes,
/// big-endian; a string is its length and its bytes.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  void skip(std::size_t size) { rest_.remove_prefix(std::min(size, rest_.size())); }
  std::size_t number() {
    std::size_t value = 0;
    for (const char byte : rest_.substr(0, LENGTH_BYTES)) {
      value = value << 8 | static_cast<unsigned char>(byte);
    }
    skip(LENGTH_BYTES);
    return value;
  }
  /// Cut where the bytes end.
  std::string_view string() {
    const std::size_t size = number();
    const std::string_view text = rest_.substr(0, size);
    skip(size);
    return text;
  }

 private:
  static constexpr std::size_t LENGTH_BYTES = 4;
  std::string_view rest_;
};

std::string typeOfPem(std::string_view label) {
  if (label == "RSA ") return "ssh-rsa";
  if (label == "DSA ") return "ssh-dss";
  // The curve, and the kind of a key in PKCS #8, are inside of the encrypted part.
  return "";
}

}  // namespace

PrivateKey::PrivateKey(const std::string& path) : path_(path) {
  read();
  inspect();
}

PrivateKey::~PrivateKey() {
  explicit_bzero(text_.data(), text_.size());
}

void PrivateKey::refuse(const std::string& reason) const {
  throw IdentityError("the key file " + path_ + " " + reason);
}

void PrivateKey::read() {
  // A pipe without a writer must not be waited for.
  const UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) refuse(std::string("cannot be read: ") + std::strerror(errno));
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) refuse(std::string("cannot be read: ") + std::strerror(errno));
  if (!S_ISREG(status.st_mode)) refuse("is no regular file");
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    refuse("may be read or changed by others than its owner: take that from them by chmod 600");
  }
  // In full at once, so that growing leaves no copies behind.
  text_.resize(LARGEST_FILE_BYTES);
  std::size_t size = 0;
  while (size < text_.size()) {
    const ssize_t got = ::read(fd.get(), text_.data() + size, text_.size() - size);
    if (got == 0) break;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) refuse(std::string("cannot be read: ") + std::strerror(errno));
    size += static_cast<std::size_t>(got);
  }
  if (size == text_.size()) refuse("is too large for a key");
  text_.resize(size);
}

void PrivateKey::inspect() {
  constexpr std::string_view BEGIN = "-----BEGIN ";
  constexpr std::string_view END = "PRIVATE KEY-----";
  const std::size_t begin = text_.find(BEGIN);
  const std::size_t end = begin == std::string::npos ? begin : text_.find(END, begin);
  const std::size_t lineEnd = begin == std::string::npos ? begin : text_.find('\n', begin);
  if (end == std::string::npos || end > lineEnd) {
    refuse("holds no private key in the format of OpenSSH or in PEM");
  }
  const std::size_t labelAt = begin + BEGIN.size();
  const std::string_view label = std::string_view(text_).substr(labelAt, end - labelAt);
  if (label == "OPENSSH ") {
    inspectOpenSsh(end + END.size());
    return;
  }
  type_ = typeOfPem(label);
  isEncrypted_ = label == "ENCRYPTED " || text_.find("Proc-Type: 4,ENCRYPTED") != std::string::npos;
}

/// The kind of the key is part of the public key, which comes before the private part.
void PrivateKey::inspectOpenSsh(std::size_t start) {
  constexpr std::size_t MAGIC_BYTES = 15;
  // A multiple of four, and enough for all names before the private part.
  constexpr std::size_t INSPECTED_CHARACTERS = 256;
  std::string encoded;
  encoded.reserve(INSPECTED_CHARACTERS);
  for (std::size_t at = start; at < text_.size() && encoded.size() < INSPECTED_CHARACTERS; ++at) {
    if (text_[at] == '-') break;
    if (std::strchr(" \t\r\n", text_[at]) == nullptr) encoded.push_back(text_[at]);
  }
  std::string bytes = fromBase64(encoded).value_or("");
  Reader header(bytes);
  header.skip(MAGIC_BYTES);
  cipher_ = header.string();
  header.string();  // how the cipher's key is made of the passphrase
  header.string();  // the salt and the rounds for that
  header.number();  // how many keys there are
  header.number();  // the length of the public one
  type_ = header.string();
  isEncrypted_ = cipher_ != "none";
  explicit_bzero(encoded.data(), encoded.size());
  explicit_bzero(bytes.data(), bytes.size());
  if (type_.empty()) refuse("is damaged: it does not say what kind of key it holds");
}
