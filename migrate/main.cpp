#include "commons/process_start.h"
#include "migrate/migrate.h"

int main(int argc, char** argv) {
  occupyClosedStandardStreams();
  forbidCoreFiles();
  return migrate::migrateMain(argc, argv);
}
