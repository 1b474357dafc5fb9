#include "commons/process_start.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <initializer_list>

void occupyClosedStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // open returns the lowest free number, which is this one. The access mode is the opposite of
    // the stream's, so that using the stream still fails and is reported.
    open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void forbidCoreFiles() {
  // A limit of 1, unlike 0, also stops the kernel from handing the core to a program.
  const rlimit limit = {1, 1};
  setrlimit(RLIMIT_CORE, &limit);
}
