#include "sondrel/host_policy.h"

#include <boost/algorithm/string/trim.hpp>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include "hostlib/qrv_conf.h"

namespace {

/// A value of the host's configuration, without the blanks at its end.
std::optional<std::string> configuredWord(const char* name) {
  const char* const configured = qrvConfGet(name);
  if (!configured) return std::nullopt;
  return boost::trim_right_copy(std::string(configured));
}

[[noreturn]] void refuseVerification(const Place& place, const std::string& reason) {
  throw Exc<&ContentVerifyUnknown>(place) % reason;
}

[[noreturn]] void rejectHostKeys(const Place& place, const std::string& host,
                                 const std::string& reason) {
  throw Exc<&SshHostKeyRejected>(place) % host % reason;
}

/// Throws SshHostKeyRejected when a line of the host's configuration is meant to set the key
/// and does not.
void requireWellFormed(const std::string& host, const char* key) {
  if (!qrvConfIsMalformed(key)) return;
  rejectHostKeys(
      {HERE}, host,
      std::string("a line of the host's configuration names ") + key + " and sets nothing");
}

/// SSH_KNOWN_HOSTS_F, for the policy of that name. Throws SshHostKeyRejected.
std::string configuredKnownHosts(const std::string& host, const std::string& policy) {
  requireWellFormed(host, "SSH_KNOWN_HOSTS_F");
  std::string file = configuredWord("SSH_KNOWN_HOSTS_F").value_or("");
  if (file.empty()) {
    rejectHostKeys(
        {HERE}, host,
        "SSH_HOST_KEY_POLICY is \"" + policy + "\", and SSH_KNOWN_HOSTS_F names no file");
  }
  // A relative path would let an account that can write to the current directory choose the trusted
  // keys.
  if (file.front() != '/') {
    rejectHostKeys({HERE}, host,
                   "SSH_KNOWN_HOSTS_F is \"" + file + "\", which is no absolute path");
  }
  return file;
}

}  // namespace

bool isAskedFor(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && std::strcmp(value, "yes") == 0;
}

bool isVerificationConfigured() {
  if (qrvConfIsUnreadable()) refuseVerification({HERE}, "the host's configuration cannot be read");
  if (qrvConfIsMalformed("CONTENT_VERIFY")) {
    refuseVerification({HERE},
                       "a line of the host's configuration names CONTENT_VERIFY and sets nothing");
  }
  const std::string value = configuredWord("CONTENT_VERIFY").value_or("no");
  if (value != "yes" && value != "no") {
    refuseVerification({HERE}, R"(CONTENT_VERIFY is neither "yes" nor "no" but ")" + value + '"');
  }
  return value == "yes";
}

bool areBatchesWanted() {
  return isAskedFor("SONDREL_CONTENT_BATCH") || configuredWord("CONTENT_BATCH") == "yes";
}

bool areListedSizesWanted() {
  return isAskedFor("QRV_LISTED_SIZES");
}

HostKeyRules configuredHostKeyRules(const std::string& host) {
  static const std::map<std::string, HostKeyRules::Policy> policies = {
      {"ignore", HostKeyRules::IGNORE},
      {"accept-new", HostKeyRules::ACCEPT_NEW},
      {"strict", HostKeyRules::STRICT}};
  if (qrvConfIsUnreadable()) {
    rejectHostKeys({HERE}, host,
                   "the host's configuration, which may demand certain keys, cannot be read");
  }
  requireWellFormed(host, "SSH_HOST_KEY_POLICY");
  const std::string name = configuredWord("SSH_HOST_KEY_POLICY").value_or("ignore");
  const auto policy = policies.find(name);
  if (policy == policies.end()) {
    rejectHostKeys({HERE}, host,
                   "SSH_HOST_KEY_POLICY is \"" + name +
                       R"(", which is none of "ignore", "accept-new" and "strict")");
  }
  if (policy->second == HostKeyRules::IGNORE) return {};
  return {policy->second, configuredKnownHosts(host, name)};
}

LoginIdentity identityOf(const config& config) {
  const auto reject = [&](const std::string& reason) {
    throw Exc<&SshIdentityRejected>(HERE) % config.host % reason;
  };
  if (std::getenv("SONDREL_IDENTITY") == nullptr) {
    if (qrvConfIsMalformed("SSH_IDENTITY_F")) {
      reject("a line of the host's configuration names SSH_IDENTITY_F and sets nothing");
    }
    const std::string& named = config.identity;
    if (!named.empty() && named != LoginIdentity::AGENT && named.front() != '/') {
      reject("SSH_IDENTITY_F is \"" + named +
             "\", which is neither \"agent\" nor an absolute path");
    }
  }
  return {config.identity, config.key_password.reveal()};
}

std::optional<JumpHost> jumpHostOf(const config& config) {
  if (config.jump.empty()) return std::nullopt;
  std::optional<JumpHost> jump = parseJumpHost(config.jump);
  if (jump) return jump;
  throw Exc<&ConnectionFault>(HERE) % config.host %
      "the environment variable SONDREL_JUMP should be [login@]host[:port]";
}
