#include "migrate/session_access.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commons/commons.h"

namespace migrate {

namespace {

/// An account that owns nothing, so that only the group decides.
constexpr uid_t NOBODY = 65534;

enum Answer { MAY_ENTER = 0, MAY_NOT_ENTER = 1, UNKNOWN = 2 };

[[noreturn]] void fail(const std::string& text) {
  throw Exc<&MigrateImpossible>(HERE) % text;
}

/// As `100 ("users")`.
std::string describeGroup(gid_t number) {
  const group* const entry = getgrgid(number);
  return std::to_string(number) +
         (entry ? " (\"" + std::string(entry->gr_name) + "\")" : " (which has no name yet)");
}

std::string nameOrNumberOf(gid_t number) {
  const group* const entry = getgrgid(number);
  return entry ? entry->gr_name : std::to_string(number);
}

/// Must run in a child, because it gives up the rights of root for good.
Answer tryToEnter(gid_t number, const char* path) {
  if (setgroups(1, &number) != 0 || setgid(number) != 0 || setuid(NOBODY) != 0) return UNKNOWN;
  if (access(path, X_OK) == 0) return MAY_ENTER;
  return errno == EACCES ? MAY_NOT_ENTER : UNKNOWN;
}

/// Leaves the decision to the kernel, which checks every directory on the path and their access
/// lists.
Answer mayGroupEnter(gid_t number, const std::string& path) {
  const pid_t child = fork();
  if (child < 0) fail(std::string("fork: ") + std::strerror(errno));
  if (child == 0) _exit(tryToEnter(number, path.c_str()));
  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited != child || !WIFEXITED(status) || WEXITSTATUS(status) > UNKNOWN) return UNKNOWN;
  return static_cast<Answer>(WEXITSTATUS(status));
}

}  // namespace

void refuseForeignGroup(const std::string& session, Console& console) {
  const ServiceAccount& account = serviceAccount();
  const gid_t given = account.user;
  if (given == account.group) return;
  const std::string foreign = "group " + describeGroup(given);
  console.complain(
      "sondrel-migrate: session directories are given to the group with the number "
      "of the account qrvadm, and " +
      foreign + " is not its own, which is " + describeGroup(account.group) +
      ". Make an account whose numbers are equal, as sondrel-migrate(8) shows");
  switch (mayGroupEnter(given, session)) {
    case MAY_NOT_ENTER: return;
    case UNKNOWN: fail("cannot find out whether " + foreign + " may enter " + session);
    case MAY_ENTER: break;
  }
  fail(foreign + " may enter " + session +
       ", where private keys will be. Close it with \"chown root:" + nameOrNumberOf(account.group) +
       " " + session + " && chmod 0750 " + session + "\", and run this again");
}

}  // namespace migrate
