#pragma once

#include <signal.h>

/// Changes the signal mask of the calling thread; the destructor restores it.
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

/// The mask for starting a helper thread, which inherits it: all signals go to other threads.
inline sigset_t allSignals() {
  sigset_t set;
  sigfillset(&set);
  return set;
}
