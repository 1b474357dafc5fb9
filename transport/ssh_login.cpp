#include <string.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstdlib>
#include <log4cpp/Category.hh>

#include "transport/libssh2pp.h"
#include "transport/ssh_session.h"

/// The part of Session that logs in.
namespace libssh2pp {

namespace {

log4cpp::Category& sessionLog = log4cpp::Category::getInstance("k.libssh2pp.Session");

}  // namespace

void Session::authorize(const std::string& login, const std::string& password) {
  sessionLog.debug("Requested authorization for user " + login);
  std::vector<std::string> methods;
  getAuthMethodsList(login, methods);
  const auto offers = [&](const char* method) {
    return std::find(methods.begin(), methods.end(), method) != methods.end();
  };
  const bool authorized =
      (offers("password") && authorizeByPassword(login, password)) ||
      (offers("keyboard-interactive") && authorizeInteractively(login, password));
  if (!authorized) {
    sessionLog.error(std::string("Authentication failed"));
    throw Exc<&SshAuthorizationFailed>(HERE);
  }
  finishLogin();
}

void Session::finishLogin() {
  connection().liftLimit();
  if (compatibility_) create_reserve_channel();
}

struct Session::KeyLogin {
  const std::string& login;
  const std::string& password;
  const LoginIdentity& identity;
  const PrivateKey* key;
  /// What the server wants now. It changes with each method that it is content with.
  std::vector<std::string> methods = {};
  std::vector<std::string> tried = {};
  /// The server has taken the key, and wants more.
  bool isKeyTaken = false;
  /// Why it has not taken the key.
  std::string refusal = "the server takes no key from this login";

  bool offers(const std::string& method) const {
    return std::find(methods.begin(), methods.end(), method) != methods.end();
  }
  /// The next method that both sides have, each once; empty when there is none.
  std::string nextMethod() const {
    for (const char* const method : {"publickey", "password", "keyboard-interactive"}) {
      const bool isPossible = method == std::string("publickey") || !password.empty();
      const bool isNew = std::find(tried.begin(), tried.end(), method) == tried.end();
      if (isPossible && isNew && offers(method)) return method;
    }
    return "";
  }
  [[noreturn]] void fail() const {
    sessionLog.error(std::string("Authentication failed"));
    if (!isKeyTaken) {
      throw IdentityError(password.empty() ? refusal : refusal + "; nor does it take the password");
    }
    const bool wantsPassword = offers("password") || offers("keyboard-interactive");
    if (wantsPassword && password.empty()) {
      throw IdentityError("the server wants a password besides the key, and none was given");
    }
    throw IdentityError(wantsPassword ? "the server takes the key, and not the password"
                                      : "the server wants more than the key and a password");
  }
};

void Session::authorize(const std::string& login, const std::string& password,
                        const LoginIdentity& identity, const PrivateKey* key) {
  sessionLog.debug("Requested authorization for user " + login);
  KeyLogin attempt{login, password, identity, key};
  getAuthMethodsList(login, attempt.methods);
  for (;;) {
    std::string method = attempt.nextMethod();
    if (method.empty() && !attempt.tried.empty()) {
      // One of them may have been right, and not enough.
      refreshMethods(attempt);
      method = attempt.nextMethod();
    }
    if (method.empty()) attempt.fail();
    attempt.tried.push_back(method);
    if (tryMethod(method, attempt)) break;
  }
  finishLogin();
}

bool Session::tryMethod(const std::string& method, KeyLogin& attempt) {
  if (method == "password") return authorizeByPassword(attempt.login, attempt.password);
  if (method != "publickey") return authorizeInteractively(attempt.login, attempt.password);
  sessionLog.debug(std::string("Trying 'publickey' authentication"));
  const bool authorized = attempt.key ? authorizeByFile(attempt) : authorizeByAgent(attempt);
  if (authorized) sessionLog.debug(std::string("Authenticated successfully by key"));
  return authorized;
}

bool Session::authorizeByFile(KeyLogin& attempt) {
  const PrivateKey& key = *attempt.key;
  const int result = retryInterrupted([&] {
    connection().limitCalls(loginDeadline_);
    // With a null for the passphrase the library would ask for it on the terminal.
    return libssh2_userauth_publickey_frommemory(get(), attempt.login.data(), attempt.login.size(),
                                                 nullptr, 0, key.text().data(), key.text().size(),
                                                 attempt.identity.passphrase.c_str());
  });
  if (result == 0) return true;
  requireLoginTime({HERE}, result);
  const bool isAnswer =
      result == LIBSSH2_ERROR_AUTHENTICATION_FAILED || result == LIBSSH2_ERROR_PUBLICKEY_UNVERIFIED;
  if (!isAnswer && !isSocketError(result) && !connection().isPeerGone()) refuseKey(key);
  noteRefusal(result, "the key " + key.path(), key.type(), attempt);
  return false;
}

bool Session::authorizeByAgent(KeyLogin& attempt) {
  const Handle<LIBSSH2_AGENT, libssh2_agent_free> agent(libssh2_agent_init(get()));
  if (libssh2_agent_connect(agent.get()) != 0 || libssh2_agent_list_identities(agent.get()) != 0) {
    throw IdentityError("the agent at SSH_AUTH_SOCK cannot be asked for keys: " + lastError());
  }
  attempt.refusal = "the agent at SSH_AUTH_SOCK has no keys";
  libssh2_agent_publickey* key = nullptr;
  while (!attempt.isKeyTaken && !connection().isPeerGone() &&
         libssh2_agent_get_identity(agent.get(), &key, key) == 0) {
    const int result = retryInterrupted([&] {
      connection().limitCalls(loginDeadline_);
      return libssh2_agent_userauth(agent.get(), attempt.login.c_str(), key);
    });
    if (result == 0) return true;
    requireLoginTime({HERE}, result);
    const std::string blob(reinterpret_cast<const char*>(key->blob), key->blob_len);
    noteRefusal(result, "any key of the agent at SSH_AUTH_SOCK", HostKey(blob).type(), attempt);
  }
  return false;
}

/// Notes how the server has answered to a key of this type. A correct signature after which the
/// server wants a second method gives the same code as a wrong one; the list of methods differs.
void Session::noteRefusal(int result, const std::string& key, const std::string& type,
                          KeyLogin& attempt) {
  if (result == LIBSSH2_ERROR_PUBLICKEY_UNVERIFIED) {
    refreshMethods(attempt);
    attempt.isKeyTaken = !attempt.methods.empty() && !attempt.offers("publickey");
    if (attempt.isKeyTaken) return;
  }
  attempt.refusal = "the server does not take " + key;
  if (type == "ssh-rsa" && !isLibrary1_11OrLater()) {
    attempt.refusal += ": the SSH library of this host, libssh2 " + libraryVersion() +
                       ", signs with RSA keys by SHA-1 only, which servers since OpenSSH 8.8 "
                       "refuse. Use an ed25519 or ECDSA key";
  } else if (result == LIBSSH2_ERROR_AUTHENTICATION_FAILED) {
    attempt.refusal += ": it is not among the authorized keys of " + attempt.login + " there";
  } else {
    attempt.refusal += attempt.methods.empty() ? ", and allows no more attempts"
                                               : ": there was no valid signature by it";
  }
}

/// None when the server allows no more attempts.
void Session::refreshMethods(KeyLogin& attempt) {
  attempt.methods.clear();
  try {
    getAuthMethodsList(attempt.login, attempt.methods);
  } catch (const Exc<&InvalidHandle>&) {
    requireLoginTime({HERE}, libssh2_session_last_errno(get()));
    sessionLog.debug(std::string("The server allows no more attempts"));
  }
}

/// For a key that the library could not use.
void Session::refuseKey(const PrivateKey& key) const {
  const std::string library = "the SSH library of this host, libssh2 " + libraryVersion() + ",";
  const std::string file = "the key file " + key.path();
  if (!key.type().empty() && !knows(LIBSSH2_METHOD_HOSTKEY, key.type())) {
    throw IdentityError(file + " holds a key of the kind " + key.type() + ", which " + library +
                        " cannot use. Use an ed25519 or ECDSA key");
  }
  // libssh2 1.11 has that one for connections, and cannot read key files by it.
  const bool isForConnections = key.cipher() == "chacha20-poly1305@openssh.com";
  const bool isMissing = !key.cipher().empty() && !knows(LIBSSH2_METHOD_CRYPT_CS, key.cipher());
  if (key.isEncrypted() && (isMissing || isForConnections)) {
    throw IdentityError(file + " is protected by the cipher " + key.cipher() + ", which " +
                        library + " does not have. Change that by ssh-keygen -p -Z aes256-ctr");
  }
  if (key.isEncrypted()) {
    throw IdentityError("the passphrase of " + file + " is wrong");
  }
  throw IdentityError(file + " cannot be used: " + library + " says \"" + lastError() + '"');
}

bool Session::authorizeByPassword(const std::string& login, const std::string& password) {
  sessionLog.debug(std::string("Trying 'password' authentication"));
  const int result = retryInterrupted([&] {
    connection().limitCalls(loginDeadline_);
    return libssh2_userauth_password_ex(get(), login.data(), static_cast<unsigned>(login.size()),
                                        password.data(), static_cast<unsigned>(password.size()),
                                        nullptr);
  });
  if (result != 0) {
    requireLoginTime({HERE}, result);
    return false;
  }
  // Not the same text as below; readers of the log distinguish the methods by it.
  sessionLog.debug(std::string("Authenticated succesfully"));
  return true;
}

bool Session::authorizeInteractively(const std::string& login, const std::string& password) {
  sessionLog.debug(std::string("Trying 'keyboard-interactive' authentication"));
  connection().callbackData().promptAnswer = &password;
  const int result = retryInterrupted([&] {
    connection().limitCalls(loginDeadline_);
    return libssh2_userauth_keyboard_interactive_ex(
        get(), login.data(), static_cast<unsigned>(login.size()), userauth_callback);
  });
  connection().callbackData().promptAnswer = nullptr;
  if (result != 0) {
    requireLoginTime({HERE}, result);
    return false;
  }
  sessionLog.debug(std::string("Authenticated successfully"));
  return true;
}

/// A server that has not answered within the limit has refused nothing. The library counts whole
/// seconds, so that its time-out may come up to one before the deadline.
void Session::requireLoginTime(const Place& place, int result) {
  const bool isLate = result == LIBSSH2_ERROR_TIMEOUT || Clock::now() >= loginDeadline_;
  if (isLate) connection().raiseLost(place);
}

void Session::getAuthMethodsList(const std::string& login, std::vector<std::string>& methods) {
  sessionLog.debug("Getting userauth methods for user '" + login + "'");
  const char* text = retryInterrupted([&] {
    connection().limitCalls(loginDeadline_);
    return libssh2_userauth_list(get(), login.data(), static_cast<unsigned>(login.size()));
  });
  // The session keeps the text it returned and frees it; ours is a copy.
  const Handle<char, DefaultDestructionFunc<char>> list(text ? strdup(text) : nullptr);
  const std::string copy = list.get();
  sessionLog.debug("Got the following allowed userauth methods: " + copy);
  boost::split(methods, copy, boost::is_any_of(","), boost::token_compress_off);
}

void Session::userauth_callback(const char* /*name*/, int /*nameLength*/,
                                const char* /*instruction*/, int /*instructionLength*/,
                                int promptsNumber,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT* /*prompts*/,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract) {
  sessionLog.debug("'keyboard-interactive' callback requested. Filling " +
                   std::to_string(promptsNumber) + " responses with the password");
  const std::string& password = *static_cast<const CallbackData*>(*abstract)->promptAnswer;
  for (int i = 0; i < promptsNumber; ++i) {
    // The library frees it.
    auto* response = static_cast<char*>(std::malloc(password.size()));
    if (response) std::copy(password.begin(), password.end(), response);
    responses[i].text = response;
    responses[i].length = response ? static_cast<unsigned>(password.size()) : 0;
  }
}

}  // namespace libssh2pp
