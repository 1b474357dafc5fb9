#pragma once

#include <poll.h>
#include <signal.h>

#include <vector>

namespace migrate {

/// A termination signal arrived while this program waited for a person.
struct Interrupted {
  int signal;
};

/// Handles the termination signals (SIGHUP, SIGINT, SIGQUIT, SIGTERM, and SIGUSR1 for a clean stop)
/// and SIGCHLD. They are blocked except in the waits, so that no operation is interrupted half way.
/// A signal that was ignored when the program started stays ignored. Only one object may exist at a
/// time.
class Signals {
 public:
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// As poll(2), with a timeout of -1 for none. A signal ends the wait, too, with 0.
  int wait(std::vector<pollfd>& descriptors, int timeoutMs);

  /// The termination signals that arrived since the last call, in the order of their numbers.
  std::vector<int> take();

  /// The first termination signal that arrived; 0 for none.
  int requested() const { return requested_; }

  /// Receives the pending signals.
  void letIn();
  /// The same; throws Interrupted when a termination signal has arrived, now or earlier.
  void check();

  /// For a child before its exec: restores the signal actions that this program found, and unblocks
  /// all signals, because the child must get what is passed on to it.
  void prepareChild() const;

 private:
  void collect();
  void restoreActions() const;

  sigset_t originalMask_;
  std::vector<struct sigaction> originalActions_;
  std::vector<int> taken_;
  int requested_ = 0;
};

}  // namespace migrate
