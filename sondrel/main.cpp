#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "commons/ProgramTerminatedException.h"
#include "commons/console.h"
#include "commons/process_start.h"
#include "sondrel/progress.h"
#include "sondrel/sondrel.h"

namespace {

void unblockSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void stopOnRequest(int /*signalNumber*/) {
  terminateProgram();
}

void installSignalHandlers() {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  action.sa_handler = stopOnRequest;
  sigaction(SIGUSR1, &action, nullptr);
  // A reader that has gone must be a write error, which is reported, and not the silent end of this
  // process.
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  installSignalHandlers();
  // Only now: a stop that is pending from before this program began must find its handler.
  unblockSignals();
  occupyClosedStandardStreams();
  forbidCoreFiles();
  const ProgressLineController progressLine(STDERR_FILENO);
  const TerminalGuard guardTerminal(std::cerr, STDERR_FILENO, theProgressLine);
  try {
    return real_main(argc, argv);
  } catch (const ExTraceable& e) {
    std::cerr << "Uncaught ExTraceableException: " << formatPlainTextMessage(e) << std::endl;
  } catch (const std::exception& e) {
    std::cerr << "Uncaught std::exception: " << e.what() << std::endl;
  } catch (...) {
    std::cerr << "Uncaught unknown exception\n";
  }
  return EXIT_FAILURE;
}
