#include "transport/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "support.h"

namespace {

/// A listening socket on a free port of loopback.
class Listener {
 public:
  explicit Listener(int family = AF_INET) : fd_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_storage address{};
    address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
    }
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(fd_.get(), 1), 0);
    EXPECT_EQ(getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    // The port has the same offset in the addresses of both families.
    port_ = ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);
  }
  std::uint16_t port() const { return port_; }
  void close() { fd_.close(); }

 private:
  UniqueFd fd_;
  std::uint16_t port_ = 0;
};

/// While it lives, this process cannot open any descriptor.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &old_);
    const rlimit none = {0, old_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &old_); }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  rlimit old_;
};

int option(const Socket& socket, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket.descriptor(), level, name, &value, &size), 0);
  return value;
}

}  // namespace

TEST(SocketTest, ConnectsAndLogsThePortInDecimal) {
  CategoryRecorder log("k.libssh2pp.Socket", log4cpp::Priority::DEBUG);
  const Listener listener;
  const Socket socket("127.0.0.1", listener.port());
  EXPECT_GE(socket.descriptor(), 0);
  const std::string target = "127.0.0.1:" + std::to_string(listener.port());
  EXPECT_THAT(log.lines(),
              testing::ElementsAre("DEBUG k.libssh2pp.Socket: Connecting to " + target + "\n",
                                   "ERROR k.libssh2pp.Socket: Resolving 127.0.0.1",
                                   "DEBUG k.libssh2pp.Socket: Connected"));
}

TEST(SocketTest, ConnectsOverIPv6) {
  const Listener listener(AF_INET6);
  const Socket socket("::1", listener.port());
  EXPECT_GE(socket.descriptor(), 0);
}

TEST(SocketTest, NoticesADeadPeerAndHoldsNoSmallPacketBack) {
  const Listener listener;
  const Socket socket("127.0.0.1", listener.port());
  EXPECT_NE(option(socket, IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_NE(option(socket, SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_KEEPINTVL), 15);
  EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_KEEPCNT), 4);
  EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 120000);
}

TEST(SocketTest, ClosesItsDescriptorAndKeepsItFromChildren) {
  const Listener listener;
  int fd = -1;
  {
    const Socket socket("127.0.0.1", listener.port());
    fd = socket.descriptor();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(SocketTest, NamesARefusedConnectionAndLogsIt) {
  CategoryRecorder log("k.libssh2pp.Socket");
  Listener listener;
  listener.close();
  const std::string target = "127.0.0.1:" + std::to_string(listener.port());
  EXPECT_EQ(whatOf<Exc<&ConnectionRefused>>([&] { Socket socket("127.0.0.1", listener.port()); }),
            "No one listening on the remote address at host 127.0.0.1");
  EXPECT_THAT(log.lines(), testing::Contains("ERROR k.libssh2pp.Socket: Unable to open socket to " +
                                             target + ": Connection refused\n"));
}

TEST(SocketTest, FailsWithAPlainErrorWhenThereIsNoSocketToBeHad) {
  const Listener listener;
  // The sanitizer needs descriptors when it first checks a type, so make each one once before.
  Socket("127.0.0.1", listener.port());
  EXPECT_EQ(whatOf<std::runtime_error>([] {
              const NoMoreDescriptors limit;
              Socket socket("127.0.0.1", 22);
            }),
            "socket: Too many open files");
}

TEST(SocketTest, TellsAnUnknownHostOnStandardErrorWithoutALineEnd) {
  CapturedStream errors(STDERR_FILENO);
  const std::string reason = gai_strerror(EAI_NONAME);
  EXPECT_EQ(whatOf<Exc<&HostNotFound>>([] { Socket::gethostbyname("no.such.host", 22); }),
            "Unable to resolve hostname no.such.host: " + reason);
  EXPECT_EQ(errors.text(), "300Unable to resolve no.such.host: " + reason);
}
