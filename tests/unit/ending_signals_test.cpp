#include "commons/ending_signals.h"

#include <unistd.h>

#include <cstdlib>

#include "support.h"

namespace {

const std::vector<int> ENDING = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigaction(number, &action, nullptr);
}

void sayFarewell() {
  ASSERT_EQ(write(STDERR_FILENO, "farewell", 8), 8);
}

void handleBySilence(int /*number*/) {}

/// The signal mask of this thread.
sigset_t presentMask() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return mask;
}

/// Sends the signal to its own process while it works, without checking for signals.
[[noreturn]] void workAndGet(int number, void (*handler)(int)) {
  handle(number, handler);
  {
    const EndingSignals watched(sayFarewell);
    kill(getpid(), number);
    // Waits until the signal ends the process.
    if (handler == SIG_DFL) {
      for (;;) pause();
    }
  }
  std::exit(7);
}

}  // namespace

TEST(EndingSignalsTest, EndTheProcessByThemselvesAfterTheFarewell) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  for (const int number : ENDING) {
    EXPECT_EXIT(workAndGet(number, SIG_DFL), testing::KilledBySignal(number), "^farewell$");
  }
}

TEST(EndingSignalsTest, StayIgnoredOrHandledIfTheyWere) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  for (const int number : ENDING) {
    EXPECT_EXIT(workAndGet(number, SIG_IGN), testing::ExitedWithCode(7), "^$");
    EXPECT_EXIT(workAndGet(number, handleBySilence), testing::ExitedWithCode(7), "^$");
  }
}

TEST(EndingSignalsTest, AreAsTheyWereAfterwards) {
  const sigset_t before = presentMask();
  {
    const EndingSignals watched([] {});
  }
  const sigset_t after = presentMask();
  for (const int number : ENDING) {
    EXPECT_EQ(sigismember(&after, number), sigismember(&before, number));
  }
}

TEST(EndingSignalsTest, LeaveOtherSignalsToTheThreadThatWorks) {
  static volatile sig_atomic_t here = 0;
  static pthread_t worker;
  worker = pthread_self();
  handle(SIGUSR1, [](int) { here = pthread_equal(pthread_self(), worker) ? 1 : 2; });
  {
    const EndingSignals watched([] {});
    // Sent to the process: any thread that has not blocked it may get it.
    kill(getpid(), SIGUSR1);
    EXPECT_EQ(here, 1);
  }
  handle(SIGUSR1, SIG_DFL);
}
