#pragma once

#include <poll.h>
#include <signal.h>

#include <vector>

namespace migrate {

/// A signal asked this program to end while it waited for a person.
struct Interrupted {
  int signal;
};

/// The signals that ask for an end (SIGHUP, SIGINT, SIGQUIT, SIGTERM, and SIGUSR1 for a clean
/// stop), and the one that reports a child's end. They are blocked except in the waits, so
/// that nothing is cut short in the middle. What was ignored when the program was started
/// stays ignored. One object at a time.
class Signals {
 public:
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// As poll(2), with a timeout of -1 for none; a signal ends it as well, with 0.
  int wait(std::vector<pollfd>& descriptors, int timeoutMs);

  /// The requests that came since the last call, in the order of their numbers.
  std::vector<int> take();

  /// The first request of all; 0 while there was none.
  int requested() const { return requested_; }

  /// Receives the pending signals.
  void letIn();
  /// The same; throws Interrupted when an end was asked for, now or earlier.
  void check();

  /// For a child: what this program found ignored stays so, and nothing is blocked, for what
  /// is passed on must arrive.
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
