#include "transport/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <log4cpp/Category.hh>
#include <stdexcept>

namespace {

log4cpp::Category& socketLog = log4cpp::Category::getInstance("k.libssh2pp.Socket");

/// Finishes a connect that a signal interrupted: it goes on in the background, and
/// calling it again would be an error. Returns 0 or the error number.
int awaitConnection(int fd) {
  pollfd connected = {fd, POLLOUT, 0};
  while (poll(&connected, 1, -1) < 0) {
    if (errno != EINTR) return errno;
  }
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

/// Returns 0 or the error number.
int connectTo(int fd, const addrinfo& address) {
  if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
  return errno == EINTR ? awaitConnection(fd) : errno;
}

void setOption(int fd, int level, int name, int value) {
  if (setsockopt(fd, level, name, &value, sizeof value) != 0) {
    socketLog.warn("Unable to set socket option %d: %s", name, std::strerror(errno));
  }
}

void tuneConnection(int fd) {
  // The protocol sends small packets and waits for the answer to each. With Nagle's algorithm each
  // command would take 40 ms longer.
  setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  // A peer that vanished without closing would never be noticed: after login this
  // program has no time limits of its own. First probe after 60 s of silence, four
  // probes 15 s apart; unacknowledged data may be 120 s old.
  setOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  setOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  setOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
  setOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

[[noreturn]] void raiseConnectError(int error, const std::string& host) {
  switch (error) {
    case ENETUNREACH: throw Exc<&NetworkUnreachable>(HERE) % host;
    case ETIMEDOUT: throw Exc<&ConnectionTimedOut>(HERE) % host;
    case ECONNREFUSED: throw Exc<&ConnectionRefused>(HERE) % host;
    case EHOSTUNREACH: throw Exc<&HostUnreachable>(HERE) % host;
    default: throw Exc<&ConnectionFault>(HERE) % host % std::strerror(error);
  }
}

}  // namespace

Socket::Socket(const std::string& host, std::uint16_t port) {
  const std::string target = host + ":" + std::to_string(port);
  socketLog.debug("Connecting to " + target + "\n");
  addresses_.reset(gethostbyname(host, port));
  descriptor_ = UniqueFd(socket(addresses_->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!descriptor_) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  if (const int error = connectTo(descriptor(), *addresses_)) {
    socketLog.error("Unable to open socket to " + target + ": " + std::strerror(error) + "\n");
    raiseConnectError(error, host);
  }
  tuneConnection(descriptor());
  socketLog.debug(std::string("Connected"));
}

addrinfo* Socket::gethostbyname(const std::string& host, std::uint16_t port) {
  // ERROR, so that the host of a run is in every log.
  socketLog.error("Resolving " + host);
  addrinfo* addresses = nullptr;
  const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), nullptr, &addresses);
  if (result == 0) return addresses;
  const std::string reason = gai_strerror(result);
  std::cerr << "300Unable to resolve " << host << ": " << reason;
  throw Exc<&HostNotFound>(HERE) % host % reason;
}
