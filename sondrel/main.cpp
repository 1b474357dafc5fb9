#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "commons/ProgramTerminatedException.h"
#include "commons/console.h"
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
  // A reader that went away is a write error, which is reported, and not the silent
  // end of this process.
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

/// Fills closed standard streams: a connection that got the number of one would receive
/// what is meant for the console. Opened the wrong way round, so that using them still
/// fails and is reported.
void occupyClosedStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest free number is this one.
    open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

/// Passwords do not belong into a core file. A limit of 1, unlike 0, also stops the
/// kernel from handing the core to a program.
void forbidCoreFiles() {
  const rlimit limit = {1, 1};
  setrlimit(RLIMIT_CORE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  unblockSignals();
  installSignalHandlers();
  occupyClosedStandardStreams();
  forbidCoreFiles();
  const TerminalGuard guardTerminal(std::cerr, STDERR_FILENO);
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
