// relay TARGET_PORT [DELAY_MICROSECONDS [BITS_PER_SECOND]]
//
// Stands on loopback for a long or narrow link to TARGET_PORT, which is on loopback as
// well: every byte arrives the delay later than it was sent, in each direction, and
// within the bandwidth. Opening a connection costs what it would on such a link. Prints
// the port that it listens on, and serves until it is killed.
//
// The link loses nothing, and its buffers are large: what limits a transfer is the
// programs at its ends.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <iostream>
#include <list>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

/// What is read at a time, at most.
constexpr std::size_t READ_BYTES = 1 << 18;
/// What shares one time of arrival, at most: about 0.1 ms at 1 Gbit/s.
constexpr std::size_t PACKET_BYTES = 16384;

[[noreturn]] void raiseSystemError(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Settings {
  std::uint16_t targetPort = 0;
  Clock::duration delay{0};
  double bytesPerSecond = 0;  // 0: no limit

  /// Bytes that one direction holds before it stops reading: those on their way, and
  /// behind a narrow link a queue of one round trip, as routers have it.
  std::size_t capacity() const {
    constexpr double NO_LIMIT_IS = 4e9;
    constexpr double LEAST = 4 << 20;
    constexpr double MOST = 256 << 20;
    const double seconds = std::chrono::duration<double>(delay).count();
    const double wanted =
        bytesPerSecond > 0 ? bytesPerSecond * seconds * 3 + READ_BYTES : NO_LIMIT_IS * seconds;
    return static_cast<std::size_t>(
        std::clamp(wanted, bytesPerSecond > 0 ? READ_BYTES : LEAST, MOST));
  }
};

/// Owns a socket, or none (-1).
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }

  int get() const { return fd_; }

 private:
  int fd_;
};

/// One direction of a connection: a ring of bytes, each due at its time.
class Way {
 public:
  explicit Way(const Settings& settings)
      : settings_(settings),
        capacity_(settings.capacity()),
        ring_(new char[capacity_]) {}  // not filled: pages that are never used cost nothing

  bool wantsInput() const { return !ended_ && taken_ - given_ < capacity_; }
  bool isBlocked() const { return blocked_; }
  /// True when the end of the input has been passed on.
  bool isOver() const { return over_; }

  /// When give() has something to do, as far as that is a matter of time.
  Time nextDue() const { return blocked_ || marks_.empty() ? Time::max() : marks_.front().due; }

  /// Takes in what can be read from the socket at once.
  void take(int source, Time now) {
    if (marks_.empty() && given_ == taken_) given_ = dueUpTo_ = taken_ = 0;  // stay in the cache
    const std::size_t begin = taken_ % capacity_;
    const std::size_t room =
        std::min({capacity_ - begin, capacity_ - (taken_ - given_), READ_BYTES});
    const ssize_t got = recv(source, &ring_[begin], room, MSG_DONTWAIT);
    if (got < 0 && mayTryAgain()) return;
    ended_ = got <= 0;  // a reset as well: what is on its way still arrives
    std::size_t left = ended_ ? 0 : static_cast<std::size_t>(got);
    do {
      const std::size_t size = std::min(left, PACKET_BYTES);
      taken_ += size;
      left -= size;
      marks_.push_back({arrival(size, now), taken_});
    } while (left > 0);
  }

  /// Sends what is due, as far as the socket accepts it.
  void give(int sink, Time now) {
    while (!marks_.empty() && marks_.front().due <= now) {
      dueUpTo_ = marks_.front().end;
      marks_.pop_front();
    }
    blocked_ = false;
    while (given_ < dueUpTo_ && !blocked_) {
      const std::size_t begin = given_ % capacity_;
      const std::size_t size = std::min(dueUpTo_ - given_, capacity_ - begin);
      const ssize_t sent = send(sink, &ring_[begin], size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) given_ += static_cast<std::size_t>(sent);
      blocked_ = sent < 0 && mayTryAgain();
      if (sent < 0 && !blocked_) return finish();  // nobody is there to receive the rest
    }
    if (ended_ && !over_ && marks_.empty() && given_ == dueUpTo_) {
      shutdown(sink, SHUT_WR);
      finish();
    }
  }

 private:
  struct Mark {
    Time due;
    std::size_t end;
  };

  static bool mayTryAgain() { return errno == EAGAIN || errno == EINTR; }

  void finish() {
    ended_ = over_ = true;
    marks_.clear();
    given_ = dueUpTo_ = taken_;
  }

  Time arrival(std::size_t size, Time now) {
    lineIsFree_ = std::max(lineIsFree_, now);
    if (settings_.bytesPerSecond > 0) {
      lineIsFree_ += std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(static_cast<double>(size) / settings_.bytesPerSecond));
    }
    return lineIsFree_ + settings_.delay;
  }

  const Settings& settings_;
  const std::size_t capacity_;
  const std::unique_ptr<char[]> ring_;
  // Counted from when the ring was last empty; what is not given yet lies in the ring.
  std::size_t taken_ = 0;
  std::size_t dueUpTo_ = 0;
  std::size_t given_ = 0;
  std::deque<Mark> marks_;
  Time lineIsFree_{};
  bool ended_ = false;
  bool blocked_ = false;
  bool over_ = false;
};

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void sendAtOnce(const Socket& socket) {
  const int yes = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

Socket newSocket() {
  Socket made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (made.get() < 0) raiseSystemError("socket");
  // Segments as on an Ethernet. With those of loopback, 64 KiB, a packet of SSH is less
  // than one, and a server that leaves Nagle's algorithm on waits for the acknowledgement
  // of each: 4 ms, which no real link would have.
  const int segmentBytes = 1448;
  setsockopt(made.get(), IPPROTO_TCP, TCP_MAXSEG, &segmentBytes, sizeof segmentBytes);
  return made;
}

Socket connectTo(std::uint16_t port) {
  Socket made = newSocket();
  const sockaddr_in address = loopback(port);
  if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    raiseSystemError("connect");
  }
  sendAtOnce(made);
  return made;
}

/// A connection that was accepted, and the one to the target that belongs to it.
class Connection {
 public:
  Connection(Socket client, const Settings& settings)
      : settings_(settings),
        // Where the client's third packet of a handshake, and its first bytes, would arrive.
        opensAt_(Clock::now() + 3 * settings.delay),
        client_(std::move(client)),
        up_(settings),
        down_(settings) {
    sendAtOnce(client_);
  }

  /// Adds what there is to wait for: two entries.
  void addTo(std::vector<pollfd>& waitList) const {
    waitList.push_back(entry(client_, up_, down_));
    waitList.push_back(entry(server_, down_, up_));
  }

  Time nextDue() const { return isOpen() ? std::min(up_.nextDue(), down_.nextDue()) : opensAt_; }

  /// Does what can be done; `found` are the entries of addTo(). False when all is over.
  bool work(const pollfd* found) {
    try {
      const Time now = Clock::now();
      if (!isOpen() && now >= opensAt_) server_ = connectTo(settings_.targetPort);
      if (isReadable(found[0]) && up_.wantsInput()) up_.take(client_.get(), now);
      if (isReadable(found[1]) && down_.wantsInput()) down_.take(server_.get(), now);
      if (isOpen()) {
        up_.give(server_.get(), now);
        down_.give(client_.get(), now);
      }
      return !(up_.isOver() && down_.isOver());
    } catch (const std::system_error&) {
      return false;  // the target does not listen
    }
  }

 private:
  bool isOpen() const { return server_.get() >= 0; }

  static bool isReadable(const pollfd& entry) { return (entry.revents & ~POLLOUT) != 0; }

  static pollfd entry(const Socket& socket, const Way& out, const Way& in) {
    const short events =
        static_cast<short>((out.wantsInput() ? POLLIN : 0) | (in.isBlocked() ? POLLOUT : 0));
    // Without a wish, a hang-up would be reported again and again.
    return {events ? socket.get() : -1, events, 0};
  }

  const Settings& settings_;
  const Time opensAt_;
  Socket client_;
  Socket server_;
  Way up_;
  Way down_;
};

class Relay {
 public:
  explicit Relay(const Settings& settings) : settings_(settings), listener_(newSocket()) {
    const sockaddr_in address = loopback(0);
    if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_.get(), SOMAXCONN) != 0) {
      raiseSystemError("listen");
    }
  }

  std::uint16_t port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

  [[noreturn]] void run() {
    std::vector<pollfd> waitList;
    for (;;) {
      waitList.assign(1, {listener_.get(), POLLIN, 0});
      Time due = Time::max();
      for (const Connection& connection : connections_) {
        connection.addTo(waitList);
        due = std::min(due, connection.nextDue());
      }
      wait(waitList, due);
      const pollfd* found = &waitList[1];
      for (auto connection = connections_.begin(); connection != connections_.end(); found += 2) {
        connection =
            connection->work(found) ? std::next(connection) : connections_.erase(connection);
      }
      if (waitList[0].revents) accept();
    }
  }

 private:
  static void wait(std::vector<pollfd>& waitList, Time due) {
    using namespace std::chrono;
    const auto left = std::max(Clock::duration(0), due - Clock::now());
    const auto whole = duration_cast<seconds>(left);
    const auto rest = static_cast<long>((nanoseconds(left) - whole).count());
    const timespec limit{static_cast<std::time_t>(whole.count()), rest};
    ppoll(waitList.data(), waitList.size(), due == Time::max() ? nullptr : &limit, nullptr);
  }

  void accept() {
    Socket client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.get() >= 0) connections_.emplace_back(std::move(client), settings_);
  }

  const Settings settings_;
  const Socket listener_;
  std::list<Connection> connections_;
};

Settings parse(const std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments.size() > 3) {
    throw std::invalid_argument("usage: relay TARGET_PORT [DELAY_MICROSECONDS [BITS_PER_SECOND]]");
  }
  Settings settings;
  settings.targetPort = static_cast<std::uint16_t>(std::stoul(arguments[0]));
  if (arguments.size() > 1) settings.delay = std::chrono::microseconds(std::stoul(arguments[1]));
  if (arguments.size() > 2) settings.bytesPerSecond = std::stod(arguments[2]) / 8;
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    prctl(PR_SET_TIMERSLACK, 1UL);  // by default every wait ends up to 50 us late
    Relay relay(parse({argv + 1, argv + argc}));
    std::cout << relay.port() << std::endl;
    relay.run();
  } catch (const std::exception& error) {
    std::cerr << "relay: " << error.what() << '\n';
    return 1;
  }
}
