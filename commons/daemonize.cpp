#include "commons/daemonize.h"

DaemonHandlers& parentDaemonHandlers() {
  static DaemonHandlers handlers;
  return handlers;
}

DaemonHandlers& childDaemonHandlers() {
  static DaemonHandlers handlers;
  return handlers;
}
