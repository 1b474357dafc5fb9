#pragma once

#include <signal.h>

#include <functional>
#include <thread>

#include "commons/unique_fd.h"

/// Runs a callback on a helper thread before SIGHUP, SIGINT, SIGQUIT or SIGTERM terminates the
/// process, as long as this object lives. A thread, since a signal handler may do little. Signals
/// that are ignored or handled when the object is made are left alone.
class EndingSignals {
 public:
  /// `atEnd` is called on that thread, and must not wait for anything. Throws
  /// std::system_error.
  explicit EndingSignals(std::function<void()> atEnd);
  ~EndingSignals();
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;

 private:
  void watch();

  std::function<void()> atEnd_;
  sigset_t originalMask_;
  UniqueFd arrived_;
  UniqueFd over_;
  std::thread thread_;
};
