#include "migrate/migrate.h"

#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>

#include "migrate/console.h"
#include "migrate/migration.h"
#include "migrate/options.h"
#include "migrate/passwords.h"
#include "migrate/signals.h"
#include "migrate/status.h"

namespace migrate {

namespace {

int carryOut(const Request& request, Passwords environment, Console& console, Signals& signals) {
  switch (request.command) {
    case Request::HELP: console.say(usageText()); return EXIT_DONE;
    case Request::VERSION: console.say("sondrel-migrate " SONDREL_VERSION); return EXIT_DONE;
    case Request::SHOW_STATUS: showStatus(request.sessionPath, console); return EXIT_DONE;
    case Request::MIGRATE: break;
  }
  return Migration(request, std::move(environment), console, signals).execute();
}

int report(Console& console, const std::string& text, int exitCode) {
  console.complain("sondrel-migrate: " + text);
  return exitCode;
}

}  // namespace

int migrateMain(int argc, char** argv) {
  // Before anything can fail: no other process may find them in /proc.
  Passwords environment = takePasswordsFromEnvironment();
  // The ids of errors are drawn from it.
  std::srand(static_cast<unsigned int>(std::time(nullptr)));
  Signals signals;
  Console console;
  try {
    return carryOut(parseOptions(argc, argv), std::move(environment), console, signals);
  } catch (const Exc<&MigrateBadSettings>& e) {
    return report(console, std::string(e.what()) + " (see --help)", EXIT_IMPOSSIBLE);
  } catch (const Exc<&MigrateSessionBusy>& e) {
    return report(console, e.what(), EXIT_BUSY);
  } catch (const Interrupted& interruption) {
    return report(console, "stopped. Run it again to go on",
                  exitCodeForRequest(interruption.signal));
  } catch (const std::exception& e) {
    return report(console, e.what(), EXIT_IMPOSSIBLE);
  }
}

}  // namespace migrate
