#pragma once

#include <signal.h>

#include <functional>
#include <thread>

#include "commons/unique_fd.h"

/// While it lives, SIGHUP, SIGINT, SIGQUIT and SIGTERM end the process as they do by
/// themselves, at once and whatever the process is at, but not before something was done:
/// by a thread that waits for them, since little may be done in a handler. Those that are
/// ignored or handled when it is made stay so.
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
