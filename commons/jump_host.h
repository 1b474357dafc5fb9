#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// A host that the way to another one leads through.
struct JumpHost {
  /// Empty for the one that ssh chooses.
  std::string login;
  std::string host;
  /// 0 for the one that ssh chooses.
  std::uint16_t port = 0;
};

/// Reads "[login@]host[:port]", where an address with colons is in brackets; nothing when `text` is
/// not that, or could be taken for an option of ssh.
std::optional<JumpHost> parseJumpHost(const std::string& text);
