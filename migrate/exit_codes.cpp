#include "migrate/exit_codes.h"

#include <signal.h>

namespace migrate {

int exitCodeForRequest(int signal) {
  return signal == 0 || signal == SIGUSR1 ? EXIT_STOPPED : EXIT_OF_FIRST_SIGNAL + signal;
}

}  // namespace migrate
