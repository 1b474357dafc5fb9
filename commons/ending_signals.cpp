#include "commons/ending_signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "commons/signal_mask.h"

namespace {

/// The termination signals that still have their default disposition.
sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_DFL) sigaddset(&set, number);
  }
  return set;
}

UniqueFd checked(int descriptor, const char* what) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
  return UniqueFd(descriptor);
}

[[noreturn]] void endBy(int number) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  raise(number);
  // Not reached: the default action terminates.
  std::abort();
}

}  // namespace

EndingSignals::EndingSignals(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {
  const sigset_t ending = endingSignals();
  arrived_ = checked(signalfd(-1, &ending, SFD_CLOEXEC), "signalfd");
  over_ = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
  {
    // The thread inherits this mask: other signals go to the main thread.
    const SignalMaskGuard none(SIG_BLOCK, allSignals());
    thread_ = std::thread([this] { watch(); });
  }
  pthread_sigmask(SIG_BLOCK, &ending, &originalMask_);
}

EndingSignals::~EndingSignals() {
  const std::uint64_t once = 1;
  // The counter is 0, so this write cannot block.
  [[maybe_unused]] const ssize_t written = write(over_.get(), &once, sizeof once);
  thread_.join();
  // A signal that has arrived since then ends the process here.
  pthread_sigmask(SIG_SETMASK, &originalMask_, nullptr);
}

void EndingSignals::watch() {
  pollfd waiting[] = {{arrived_.get(), POLLIN, 0}, {over_.get(), POLLIN, 0}};
  while (poll(waiting, 2, -1) < 0) continue;
  signalfd_siginfo signal{};
  if (waiting[0].revents == 0 || read(arrived_.get(), &signal, sizeof signal) != sizeof signal) {
    return;
  }
  atEnd_();
  endBy(static_cast<int>(signal.ssi_signo));
}
