#include "transport/receive_window.h"

#include <algorithm>
#include <cmath>

void ReceiveWindow::addRoundTrip(Clock::duration taken) {
  roundTrip_ = std::min(roundTrip_, taken);
}

void ReceiveWindow::begin(std::size_t window, Clock::time_point now) {
  begun_ = now;
  window_ = window;
  receipts_.clear();
  receivedInRoundTrip_ = 0;
}

std::size_t ReceiveWindow::grant(std::size_t window, Clock::time_point now) {
  if (window == window_) receiptBegin_ = now;
  const bool isFirst = window_ < SMALLEST;
  // The library opens the window by itself, too, when little is left.
  const std::size_t received = window_ > window ? window_ - window : 0;
  if (!isFirst && received < STEP) return 0;
  learn(received, now);
  // A server that may send half as much again keeps up with it; one that may send twice as
  // much begins to read ahead.
  const std::size_t most = isFirst ? SMALLEST : received + received / 2;
  const std::size_t wanted = allowed(now);
  if (wanted <= window) return 0;
  const std::size_t granted = std::min(wanted - window, most);
  window_ = window + granted;
  receiptBegin_ = now;
  return granted;
}

/// The largest window that reading it ahead would cost a server at most half of the time that
/// the command has taken: the price grows with the square of the size.
std::size_t ReceiveWindow::allowed(Clock::time_point now) const {
  constexpr double SECONDS_FOR_ONE_MIB = 0.08;
  constexpr double MIB = 1 << 20;
  const double taken = std::chrono::duration<double>(now - begun_).count();
  const double worthIt = std::sqrt(taken / SECONDS_FOR_ONE_MIB) * MIB;
  return worthIt < static_cast<double>(target_)
             ? std::max(SMALLEST, static_cast<std::size_t>(worthIt))
             : target_;
}

/// If nearly the whole window came in within a round trip, the window is what the server
/// had to wait for. Pauses before and after do not count: on a busy machine most round
/// trips take longer than the shortest.
void ReceiveWindow::learn(std::size_t received, Clock::time_point now) {
  constexpr double NEARLY_ALL = 0.8;
  if (roundTrip_ == Clock::duration::max()) return;
  receipts_.push_back({receiptBegin_, received});
  receivedInRoundTrip_ += received;
  while (!receipts_.empty() && now - receipts_.front().begin > roundTrip_) {
    receivedInRoundTrip_ -= receipts_.front().bytes;
    receipts_.pop_front();
  }
  if (static_cast<double>(receivedInRoundTrip_) < NEARLY_ALL * static_cast<double>(target_)) return;
  target_ = std::min(target_ + target_ / 2, LARGEST);
  receipts_.clear();
  receivedInRoundTrip_ = 0;
}
