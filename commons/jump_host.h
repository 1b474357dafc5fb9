#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// A jump host: the connection to another host goes through it.
struct JumpHost {
  /// Empty: ssh chooses the login.
  std::string login;
  std::string host;
  /// 0: ssh chooses the port.
  std::uint16_t port = 0;
};

/// Parses "[login@]host[:port]", where an address with colons is in brackets. Nothing when `text`
/// has another form, or when ssh could take a part of it for an option.
std::optional<JumpHost> parseJumpHost(const std::string& text);
