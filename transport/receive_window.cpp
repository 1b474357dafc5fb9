#include "transport/receive_window.h"

#include <algorithm>

void ReceiveWindow::addRoundTrip(Clock::duration taken) {
  roundTrip_ = std::min(roundTrip_, taken);
}

void ReceiveWindow::begin(std::size_t window, Clock::time_point now) {
  window_ = window;
  roundBegin_ = now;
  receivedInRound_ = 0;
}

std::size_t ReceiveWindow::grant(std::size_t window, Clock::time_point now) {
  if (window + STEP > target_) return 0;
  const std::size_t received = window_ - window;
  receivedInRound_ += received;
  learn(now);
  // Twice what has come doubles the window within a round trip, and no faster.
  const std::size_t most = std::max(2 * received, SMALLEST);
  const std::size_t granted = std::min(target_ - window, most);
  window_ = window + granted;
  return granted;
}

/// Once in a round trip: if nearly the whole window came in during it, the window is
/// what the server had to wait for.
void ReceiveWindow::learn(Clock::time_point now) {
  constexpr double NEARLY_ALL = 0.8;
  using Seconds = std::chrono::duration<double>;
  const auto elapsed = now - roundBegin_;
  if (roundTrip_ == Clock::duration::max() || elapsed < roundTrip_) return;
  const double perRoundTrip = static_cast<double>(receivedInRound_) *
                              (Seconds(roundTrip_).count() / Seconds(elapsed).count());
  if (perRoundTrip > NEARLY_ALL * static_cast<double>(target_)) {
    target_ = std::min(2 * target_, LARGEST);
  }
  roundBegin_ = now;
  receivedInRound_ = 0;
}
