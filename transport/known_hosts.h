#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// A server's public key, as the protocol has it.
class HostKey {
 public:
  /// `blob` is what the server presents.
  explicit HostKey(const std::string& blob);

  /// The kind of key as the protocol names it, "ssh-ed25519". The server chooses this text: it may
  /// contain anything.
  const std::string& type() const { return type_; }
  /// The blob in base64, which is how files of known hosts have it.
  const std::string& text() const { return text_; }
  /// As people compare it: "SHA256:" and the sum in base64.
  const std::string& fingerprint() const { return fingerprint_; }

 private:
  std::string type_;
  std::string text_;
  std::string fingerprint_;
};

/// The keys of one server in a file in the format of OpenSSH's known_hosts. Names may be lists,
/// patterns or hashes, and [host]:port. Certificate authorities are ignored, with a line in the
/// log.
class KnownHosts {
 public:
  enum Verdict {
    KNOWN,
    /// The file has no line for the server.
    UNKNOWN,
    /// It has lines for the server, none of them with this key.
    CHANGED,
    /// It marks this key as revoked.
    REVOKED
  };

  /// Reads the file; a missing one counts as empty. Throws std::runtime_error.
  KnownHosts(const std::string& path, const std::string& host, std::uint16_t port);

  Verdict judge(const HostKey& key) const;
  /// The kinds of the keys that the server may have, in the order of the file.
  std::vector<std::string> types() const;
  /// Adds a line for the server to the file, durably, and makes the file if there is none.
  /// Throws std::runtime_error; the file is then as it was.
  void add(const HostKey& key);

 private:
  struct Entry {
    std::string type;
    std::string text;
  };

  void readLine(const std::string& line, int number);

  std::string path_;
  /// The names under which the file may list the server: first the one with the port, then, if the
  /// port is not the usual one, the host's name for any port.
  std::vector<std::string> names_;
  std::vector<Entry> own_;
  std::vector<Entry> anyPort_;
  std::vector<Entry> revoked_;
};
