#pragma once

#include <chrono>
#include <cstddef>

/// How much more a server may send of a command's output, before it has to wait for us.
///
/// With a long round trip a small window leaves the server waiting most of the time; with a
/// short one a large window wastes memory. So the window begins small and doubles for
/// as long as all of it comes in within a round trip. It is granted in small steps, as
/// bytes come in: a server that is granted much at once reads that much ahead, and may
/// be very slow at holding it. One object serves all commands of a connection, one
/// after the other; it keeps what it has learnt of the network path.
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
  /// How many bytes to grant now that `window` is what is left; 0 for none yet.
  std::size_t grant(std::size_t window, Clock::time_point now);

  /// The size that the window grows to, in bytes.
  std::size_t target() const { return target_; }

 private:
  void learn(Clock::time_point now);

  Clock::duration roundTrip_ = Clock::duration::max();
  std::size_t target_ = SMALLEST;

  // Of the present command:
  std::size_t window_ = 0;
  Clock::time_point roundBegin_;
  std::size_t receivedInRound_ = 0;
};
