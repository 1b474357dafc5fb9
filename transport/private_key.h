#pragma once

#include <stdexcept>
#include <string>

/// How to log in by key. None by default.
struct LoginIdentity {
  /// The source that stands for the agent at SSH_AUTH_SOCK.
  static constexpr const char* AGENT = "agent";

  /// The path of a private key file, or AGENT; empty for no key.
  std::string source;
  /// Of the key file; empty for none.
  std::string passphrase;

  bool isGiven() const { return !source.empty(); }
  bool isAgent() const { return source == AGENT; }
};

/// A key that cannot be used to log in. The text says why, and what to do.
class IdentityError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A file with a private key in the format of OpenSSH or in PEM. It is not deciphered here.
/// The destructor wipes its content from memory.
class PrivateKey {
 public:
  /// Reads the file. Throws IdentityError for one that cannot be read, that others than its
  /// owner may read, or that holds no such key.
  explicit PrivateKey(const std::string& path);
  ~PrivateKey();
  PrivateKey(const PrivateKey&) = delete;
  PrivateKey& operator=(const PrivateKey&) = delete;

  const std::string& path() const { return path_; }
  const std::string& text() const { return text_; }
  /// True when the key cannot be used without its passphrase.
  bool isEncrypted() const { return isEncrypted_; }
  /// The kind of key as the protocol names it, "ssh-ed25519"; empty where the file has it
  /// only inside of the encrypted key.
  const std::string& type() const { return type_; }
  /// The cipher that protects the key, as the protocol names it; empty where the file does not
  /// name it so.
  const std::string& cipher() const { return cipher_; }

 private:
  void read();
  void inspect();
  void inspectOpenSsh(std::size_t start);
  [[noreturn]] void refuse(const std::string& reason) const;

  std::string path_;
  std::string text_;
  std::string type_;
  std::string cipher_;
  bool isEncrypted_ = false;
};
