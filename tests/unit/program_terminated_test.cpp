#include <csignal>
#include <thread>

#include "commons/ProgramTerminatedException.h"
#include "support.h"

namespace {

std::string check() {
  return whatOf<MigrationTerminatedException>(checkProgramTerminated);
}

const char* const STOPPED = "Migration has been terminated";
const char* const NOT_STOPPED = "no exception";

}  // namespace

TEST(TerminationTest, PassesTheCheckUntilAStopIsAskedForAndNeverAfterwards) {
  IN_FRESH_PROCESS();
  EXPECT_EQ(check(), NOT_STOPPED);
  terminateProgram();
  EXPECT_EQ(check(), STOPPED);
  EXPECT_EQ(check(), STOPPED);
}

TEST(TerminationTest, IsTheSameWhenAskedForTwice) {
  IN_FRESH_PROCESS();
  terminateProgram();
  terminateProgram();
  EXPECT_EQ(check(), STOPPED);
}

TEST(TerminationTest, MayBeAskedForInASignalHandler) {
  IN_FRESH_PROCESS();
  std::signal(SIGUSR2, [](int) { terminateProgram(); });
  std::raise(SIGUSR2);
  EXPECT_EQ(check(), STOPPED);
}

TEST(TerminationTest, MayBeAskedForInAnotherThread) {
  IN_FRESH_PROCESS();
  std::thread([] { terminateProgram(); }).join();
  EXPECT_EQ(check(), STOPPED);
}
