#include "transport/host_key_check.h"

#include <log4cpp/Category.hh>
#include <stdexcept>

namespace {

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

/// Calls `work`, which uses the file; a failure of it goes to `reject` as a text.
template <class Work, class Reject>
void useFile(Work work, Reject reject) {
  try {
    work();
  } catch (const std::runtime_error& e) {
    reject(std::string("the file of known host keys cannot be used: ") + e.what());
  }
}

}  // namespace

HostKeyCheck::HostKeyCheck(const HostKeyRules& rules, const std::string& host, std::uint16_t port)
    : rules_(rules), host_(host) {
  if (rules_.policy == HostKeyRules::IGNORE) return;
  const Place here = {HERE};
  useFile([&] { known_.emplace(rules_.file, host, port); },
          [&](const std::string& reason) { reject(here, reason); });
}

std::vector<std::string> HostKeyCheck::types() const {
  return known_ ? known_->types() : std::vector<std::string>();
}

void HostKeyCheck::check(const HostKey& key) {
  if (!known_) return;
  const std::string presented =
      "the key that it presents, " + key.type() + " " + key.fingerprint() + ", ";
  switch (known_->judge(key)) {
    case KnownHosts::KNOWN: return;
    case KnownHosts::REVOKED: reject({HERE}, presented + "is revoked in " + rules_.file);
    case KnownHosts::CHANGED:
      reject(
          {HERE},
          presented + "is not the one that " + rules_.file +
              " has for it. Either the key was changed, or somebody is between this host and it");
    case KnownHosts::UNKNOWN: break;
  }
  if (rules_.policy == HostKeyRules::STRICT) {
    reject({HERE}, presented + "is not known: " + rules_.file + " has none for it");
  }
  accept(key);
}

void HostKeyCheck::accept(const HostKey& key) {
  const Place here = {HERE};
  useFile([&] { known_->add(key); }, [&](const std::string& reason) { reject(here, reason); });
  sshLog.info("The host key of " + host_ + " is new and was added to " + rules_.file + ": " +
              key.type() + " " + key.fingerprint());
}

void HostKeyCheck::reject(const Place& place, const std::string& reason) const {
  throw Exc<&SshHostKeyRejected>(place) % host_ % reason;
}
