#pragma once

#include <signal.h>

/// Gives the thread that made it another signal mask.
class SignalMaskGuard {
 public:
  /// `how` as for pthread_sigmask.
  SignalMaskGuard(int how, const sigset_t& set) { pthread_sigmask(how, &set, &original_); }
  ~SignalMaskGuard() { pthread_sigmask(SIG_SETMASK, &original_, nullptr); }
  SignalMaskGuard(const SignalMaskGuard&) = delete;
  SignalMaskGuard& operator=(const SignalMaskGuard&) = delete;

 private:
  sigset_t original_;
};

/// What a thread inherits that is started to work aside: every signal is for the one that
/// started it.
inline sigset_t allSignals() {
  sigset_t set;
  sigfillset(&set);
  return set;
}
