#pragma once

#include <netdb.h>

#include <cstdint>
#include <memory>
#include <string>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"

DECLARE_ERROR_TAG(HostNotFound, "Unable to resolve hostname %1%: %2%");
DECLARE_ERROR_TAG(NetworkUnreachable, "Specified network host %1% is unreachable");
DECLARE_ERROR_TAG(ConnectionTimedOut, "Timeout while attempting connection to host %1%");
DECLARE_ERROR_TAG(ConnectionRefused, "No one listening on the remote address at host %1%");
DECLARE_ERROR_TAG(HostUnreachable, "No route to host %1%");
DECLARE_ERROR_TAG(ConnectionFault, "Unable to connect to host %1%: %2%");

/// The one TCP connection of a run.
class Socket {
 public:
  /// Resolves `host` and connects to the first address found; the others are not
  /// tried. No time limit but the system's. Throws one of the tags above, or
  /// std::runtime_error when no socket can be had.
  Socket(const std::string& host, std::uint16_t port);

  int descriptor() const { return descriptor_.get(); }

  /// Resolution only; the caller owns the list. On failure also writes a line, by
  /// which callers know the case, to standard error; throws HostNotFound.
  static addrinfo* gethostbyname(const std::string& host, std::uint16_t port);

 private:
  struct FreeAddresses {
    void operator()(addrinfo* addresses) const noexcept { freeaddrinfo(addresses); }
  };

  UniqueFd descriptor_;
  std::unique_ptr<addrinfo, FreeAddresses> addresses_;
};
