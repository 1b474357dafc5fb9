#include "hostlib/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>

#include "hostlib/messlog.h"

namespace {

/// The account's entry, or null after a line in the system log. Owned by libc and
/// valid until the next lookup.
const passwd* findAccount(const std::string& account) {
  errno = 0;
  const passwd* entry = getpwnam(account.c_str());
  if (!entry) {
    // No entry without an error number is the normal answer for "not there".
    const char* reason = errno ? std::strerror(errno) : "no such account";
    messlog2("Unable to find uid for user " + account + ": " + reason);
  }
  return entry;
}

}  // namespace

uid_t get_user_id(const std::string& account) {
  const passwd* entry = findAccount(account);
  return entry ? entry->pw_uid : 0;
}

unsigned int korvo_ugid(const std::string& account, UgidSelector selector) {
  const passwd* entry = findAccount(account);
  if (!entry) return 0;
  return selector == UGID_USER ? entry->pw_uid : entry->pw_gid;
}

std::string getGroupName(gid_t group) {
  const struct group* const entry = getgrgid(group);
  return entry ? entry->gr_name : "no name";
}
