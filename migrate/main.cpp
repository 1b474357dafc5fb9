#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <initializer_list>

#include "migrate/migrate.h"

namespace {

/// Fills closed standard streams: a document that got the number of one would receive what is
/// meant for the console. Opened the wrong way round, so that using them still fails.
void occupyClosedStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest free number is this one.
    open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

/// Passwords do not belong into a core file; with 1, unlike 0, not into that of a program
/// that is handed cores either. The runs of sondrel inherit it.
void forbidCoreFiles() {
  const rlimit limit = {1, 1};
  setrlimit(RLIMIT_CORE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  occupyClosedStandardStreams();
  forbidCoreFiles();
  return migrate::migrateMain(argc, argv);
}
