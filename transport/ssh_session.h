#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "transport/handle.h"
#include "transport/known_hosts.h"
#include "transport/private_key.h"
#include "transport/ssh_channel.h"

struct _LIBSSH2_SESSION;
struct _LIBSSH2_USERAUTH_KBDINT_PROMPT;
struct _LIBSSH2_USERAUTH_KBDINT_RESPONSE;

DECLARE_ERROR_TAG(UnableToStartSshSession, "Unable to start SSH session: %1%");
DECLARE_ERROR_TAG(SshAuthorizationFailed, "No suitable username/password found");

namespace libssh2pp {

void dtm_libssh2_session_free(_LIBSSH2_SESSION* session) noexcept;

/// The key exchange with this server would choose a pair of ciphers with which the library aborts
/// the process. It cannot happen when no AES-GCM cipher is offered.
class MixedCipherPair : public std::exception {
 public:
  const char* what() const noexcept override { return "The ciphers of both ways are no pair"; }
};

/// Owns what the library's callbacks for a session use.
class ConnectionOwner {
 protected:
  explicit ConnectionOwner(int socket);
  ~ConnectionOwner();
  ConnectionOwner(const ConnectionOwner&) = delete;
  ConnectionOwner& operator=(const ConnectionOwner&) = delete;

  Connection& connection() const { return *connection_; }

 private:
  std::unique_ptr<Connection> connection_;
};

/// The SSH session over a connected socket. The order of the bases matters: what the
/// library's callbacks use outlives the handle.
class Session : private ConnectionOwner, public Handle<_LIBSSH2_SESSION, dtm_libssh2_session_free> {
 public:
  /// What handshake and authentication together may take.
  static constexpr std::chrono::milliseconds LOGIN_LIMIT = std::chrono::seconds(120);

  /// Which ciphers are offered, if the library has authenticating ones and handles them well; else
  /// its own order is kept.
  enum Ciphers { FASTEST_FIRST, WITHOUT_GCM };

  /// Starts the protocol on `socket`, which stays the caller's and must outlive the
  /// session. In compatibility mode only the oldest key exchange is offered. Of the
  /// server's keys one of `hostKeyTypes` is preferred. Throws UnableToStartSshSession, and
  /// MixedCipherPair before anything was enciphered, not for WITHOUT_GCM.
  Session(int socket, bool disableEncryption, bool compatibility,
          std::chrono::milliseconds loginLimit = LOGIN_LIMIT,
          const std::vector<std::string>& hostKeyTypes = {}, Ciphers wanted = FASTEST_FIRST);
  ~Session() override;

  /// The key by which the server has proved who it is.
  HostKey hostKey() const;
  /// Throws SshAuthorizationFailed when no method that the server offers succeeds,
  /// InvalidHandle when it does not list its methods.
  void authorize(const std::string& login, const std::string& password);
  /// The same, but by key first, and by the password, if there is one, where the server takes
  /// no key, does not take this one, or wants both. `key` is what the identity names; null for
  /// the agent. Throws IdentityError when that does not log in, InvalidHandle as above.
  void authorize(const std::string& login, const std::string& password,
                 const LoginIdentity& identity, const PrivateKey* key);
  /// Fills `methods` with what the server allows for `login`. Throws InvalidHandle.
  void getAuthMethodsList(const std::string& login, std::vector<std::string>& methods);
  /// Answers every prompt with the password of the login that is at work; for the library.
  static void userauth_callback(const char* name, int nameLength, const char* instruction,
                                int instructionLength, int promptsNumber,
                                const _LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                _LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract);

  /// Starts a command. The channel must be destroyed before the session. Throws
  /// InvalidHandle when the server opens no channel.
  std::unique_ptr<Channel> openExecChannel(const std::string& command, Channel::Mode mode);
  /// Opens an idle channel that stays as long as the session: servers old enough to
  /// need compatibility mode may end a session with no channel in it.
  void create_reserve_channel();

  /// Sends a message that needs no answer, every 2 s at most: shows life during long
  /// local work to a server that would drop a silent client.
  void keepAlive();
  /// Shows life in every wait for the server from now on, for a connection that is relayed.
  void keepAliveInWaits();

  /// The library's text for its last error.
  std::string lastError() const;

 private:
  using Clock = std::chrono::steady_clock;

  void preferHostKeys(const std::vector<std::string>& types);
  void preferCiphers(Ciphers wanted);
  void keepCiphers();
  void start();
  _LIBSSH2_CHANNEL* openChannel();
  bool authorizeByPassword(const std::string& login, const std::string& password);
  bool authorizeInteractively(const std::string& login, const std::string& password);
  void finishLogin();
  void requireLoginTime(const Place& place, int result);

  /// The state of a login by key.
  struct KeyLogin;
  bool tryMethod(const std::string& method, KeyLogin& attempt);
  bool authorizeByFile(KeyLogin& attempt);
  bool authorizeByAgent(KeyLogin& attempt);
  void noteRefusal(int result, const std::string& key, const std::string& type, KeyLogin& attempt);
  void refreshMethods(KeyLogin& attempt);
  std::vector<std::string> supportedAlgorithms(int kind) const;
  bool knows(int kind, const std::string& algorithm) const;
  [[noreturn]] void refuseKey(const PrivateKey& key) const;
  void reportStartFailure(const std::string& error) const;

  bool compatibility_;
  std::unique_ptr<Channel> reserveChannel_;
  Clock::time_point loginDeadline_;
};

}  // namespace libssh2pp
