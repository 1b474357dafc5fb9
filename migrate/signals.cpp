#include "migrate/signals.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

namespace migrate {

namespace {

constexpr std::array<int, 5> REQUESTS = {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGTERM};
constexpr std::array<int, 7> HANDLED = {SIGHUP,  SIGINT,  SIGQUIT, SIGUSR1,
                                        SIGTERM, SIGCHLD, SIGPIPE};

std::array<volatile sig_atomic_t, NSIG> arrived{};

void note(int signalNumber) {
  arrived[static_cast<std::size_t>(signalNumber)] = 1;
}

sigset_t heldBack() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : REQUESTS) sigaddset(&set, number);
  sigaddset(&set, SIGCHLD);
  return set;
}

}  // namespace

Signals::Signals() {
  const sigset_t set = heldBack();
  sigprocmask(SIG_BLOCK, &set, &originalMask_);
  for (const int number : HANDLED) {
    struct sigaction original {};
    sigaction(number, nullptr, &original);
    originalActions_.push_back(original);
    const bool isRequest = number != SIGCHLD && number != SIGPIPE;
    if (isRequest && original.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    // A reader that has gone must be a write error and not the end of this process.
    action.sa_handler = number == SIGPIPE ? SIG_IGN : note;
    sigaction(number, &action, nullptr);
  }
}

Signals::~Signals() {
  restoreActions();
  sigprocmask(SIG_SETMASK, &originalMask_, nullptr);
}

void Signals::prepareChild() const {
  restoreActions();
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Signals::restoreActions() const {
  for (std::size_t i = 0; i < HANDLED.size(); ++i) {
    sigaction(HANDLED[i], &originalActions_[i], nullptr);
  }
}

int Signals::wait(std::vector<pollfd>& descriptors, int timeoutMs) {
  // The parent may have blocked signals; here they are unblocked.
  sigset_t none;
  sigemptyset(&none);
  const timespec timeout = {timeoutMs / 1000, timeoutMs % 1000 * 1000000L};
  const int ready =
      ppoll(descriptors.data(), descriptors.size(), timeoutMs < 0 ? nullptr : &timeout, &none);
  const int error = errno;
  collect();
  errno = error;
  if (ready >= 0 || errno != EINTR) return ready;
  for (pollfd& descriptor : descriptors) descriptor.revents = 0;
  return 0;
}

void Signals::collect() {
  for (const int number : REQUESTS) {
    auto& flag = arrived[static_cast<std::size_t>(number)];
    if (flag == 0) continue;
    flag = 0;
    taken_.push_back(number);
    if (requested_ == 0) requested_ = number;
  }
}

std::vector<int> Signals::take() {
  return std::exchange(taken_, {});
}

void Signals::letIn() {
  std::vector<pollfd> nothing;
  wait(nothing, 0);
}

void Signals::check() {
  letIn();
  if (requested_ != 0) throw Interrupted{requested_};
}

}  // namespace migrate
