#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "transport/known_hosts.h"

DECLARE_ERROR_TAG(SshHostKeyRejected, "Unable to connect to host %1%: %2%");

/// What the administrator of this host wants to know of the keys of source hosts.
struct HostKeyRules {
  enum Policy {
    /// Any key will do.
    IGNORE,
    /// The key of a server that the file does not know is added to it.
    ACCEPT_NEW,
    /// The file must know the key.
    STRICT
  };
  Policy policy = IGNORE;
  /// As for KnownHosts; needed unless keys are ignored.
  std::string file;
};

/// Decides whether the server at the other end is the one it should be. The caller must ask
/// before it sends anything secret.
class HostKeyCheck {
 public:
  /// Reads the file, if it is needed. Throws SshHostKeyRejected when it cannot.
  HostKeyCheck(const HostKeyRules& rules, const std::string& host, std::uint16_t port);

  /// The kinds of keys to ask the server for: those that it is known by. Empty for any.
  std::vector<std::string> types() const;
  /// Returns for a trusted key, which is then in the file unless keys are
  /// ignored. Throws SshHostKeyRejected for any other one.
  void check(const HostKey& key);

 private:
  void accept(const HostKey& key);
  [[noreturn]] void reject(const Place& place, const std::string& reason) const;

  HostKeyRules rules_;
  std::string host_;
  std::optional<KnownHosts> known_;
};
