#pragma once

#include <chrono>
#include <cstddef>
#include <deque>

/// How much more a server may send of a command's output, before it has to wait for us.
///
/// With a long round trip a small window leaves the server waiting most of the time. So the
/// window begins small and grows by half whenever nearly all of it has come in within a round
/// trip. Any stretch of that length counts: a machine that is busy in between must not keep
/// the window small.
///
/// A large window has a price: OpenSSH's server reads ahead what it may send and cannot send
/// yet, and copies all of that for each 64 KiB that it adds. Reading 8 MiB ahead takes it 2 to
/// 4 s, in which nearly nothing is sent. So the window is granted in small steps, as bytes come
/// in, and a command gets a large one only when it has taken long enough to be worth that price.
///
/// One object serves all commands of a connection, one after the other; it keeps what it
/// has learnt of the network path.
class ReceiveWindow {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t SMALLEST = std::size_t{1} << 20;
  static constexpr std::size_t LARGEST = std::size_t{64} << 20;
  /// Smaller grants are not worth a message.
  static constexpr std::size_t STEP = std::size_t{256} << 10;

  /// A round trip was seen to take that long. The shortest counts: the others had to
  /// wait for something.
  void addRoundTrip(Clock::duration taken);

  /// A command is about to send output; `window` bytes are granted already.
  void begin(std::size_t window, Clock::time_point now);
  /// How many bytes to grant now that `window` is what is left; 0 for none yet. Asked
  /// before each read, also before one that will have to wait.
  std::size_t grant(std::size_t window, Clock::time_point now);

  /// The size that the network path needs, in bytes, as far as that is known.
  std::size_t target() const { return target_; }

 private:
  std::size_t allowed(Clock::time_point now) const;
  void learn(std::size_t received, Clock::time_point now);

  struct Receipt {
    Clock::time_point begin;
    std::size_t bytes;
  };

  Clock::duration roundTrip_ = Clock::duration::max();
  std::size_t target_ = SMALLEST;

  // Of the present command:
  Clock::time_point begun_;
  std::size_t window_ = 0;
  /// The last time that nothing had come since the last grant.
  Clock::time_point receiptBegin_;
  /// What came in during the last round trip, since the window last grew.
  std::deque<Receipt> receipts_;
  std::size_t receivedInRoundTrip_ = 0;
};
