#pragma once

#include <libssh2.h>

#include <chrono>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "transport/cipher_offer.h"
#include "transport/handle.h"
#include "transport/known_hosts.h"
#include "transport/private_key.h"
#include "transport/receive_window.h"

DECLARE_ERROR_TAG(UnableToStartSshSession, "Unable to start SSH session: %1%");
DECLARE_ERROR_TAG(SshAuthorizationFailed, "No suitable username/password found");
DECLARE_ERROR_TAG(SshConnectionFault, "Lost connection with the remote host");

/// The SSH library behind owning objects. The library is used in blocking mode
/// except where this text says otherwise; where it fails because of a signal the
/// call is repeated here.
namespace libssh2pp {

void dtm_libssh2_session_free(LIBSSH2_SESSION* session) noexcept;
void dtm_libssh2_channel_free(LIBSSH2_CHANNEL* channel) noexcept;

class Session;

/// What the library's callbacks for a session need; the session's abstract pointer
/// leads to it.
struct CallbackData {
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  /// Goes into every answer of keyboard-interactive; not owned.
  const std::string* promptAnswer = nullptr;
  /// Bytes that may still be received; beyond them it is as if nothing had come.
  std::size_t allowance = std::numeric_limits<std::size_t>::max();
  /// Nothing more is to be received ever.
  bool lost = false;
  /// The ciphers that are preferred both ways, where one that authenticates by itself is among
  /// them; else none.
  std::vector<std::string> ciphers = {};
  CipherOffer offer = {};
  /// The server would choose one that authenticates by itself for one way, and another one for the
  /// other.
  bool isPairMixed = false;
};

/// The server's choice of ciphers would be one that the library cannot handle: it aborts the
/// process. Without ciphers that authenticate by themselves there is none such.
class MixedCipherPair : public std::exception {
 public:
  const char* what() const noexcept override { return "The ciphers of both ways are no pair"; }
};

/// Limits the session's calls until `deadline`: the waits of each, and all that they
/// read together, since a peer that never stops talking leaves no wait to limit.
void limitCalls(LIBSSH2_SESSION* session, std::chrono::steady_clock::time_point deadline);
/// Lets the session's calls take any time.
void liftLimit(LIBSSH2_SESSION* session);

/// Lifts the time limit of a session's calls when it goes.
class TimeLimitLifter {
 public:
  explicit TimeLimitLifter(LIBSSH2_SESSION* session) : limitedSession_(session) {}
  ~TimeLimitLifter() { liftLimit(limitedSession_); }
  TimeLimitLifter(const TimeLimitLifter&) = delete;
  TimeLimitLifter& operator=(const TimeLimitLifter&) = delete;

 private:
  LIBSSH2_SESSION* limitedSession_;
};

/// One remote command. The order of the bases matters: the handle goes first, under
/// the limit that the destructor sets for it.
class Channel : private TimeLimitLifter, public Handle<LIBSSH2_CHANNEL, dtm_libssh2_channel_free> {
 public:
  /// The library's blocking flag.
  enum Mode { NON_BLOCKING = 0, BLOCKING = 1 };

  /// Exit status of a command that the server refused to start.
  static constexpr int REFUSED_STATUS = 255;
  /// From here on a status says that something ended the command, or that it was
  /// never started.
  static constexpr int FIRST_SIGNAL_STATUS = 128;

  /// `session` must outlive the channel.
  Channel(LIBSSH2_CHANNEL* channel, Session& session);
  /// Frees the channel; waits at most 3 s for the server to agree.
  ~Channel() override;

  /// Starts the command. A server that refuses to is seen later, as a closed channel
  /// with REFUSED_STATUS. Throws SshConnectionFault.
  void startCommand(const std::string& command, Mode mode);

  /// Lets the server send more of the command's output, if the time has come.
  void openWindow();

  /// Waits until the command has something to say, ends, or the connection is lost,
  /// at most `timeoutMs`; returns at once on a signal. SIGALRM is let in here even
  /// when the caller holds it blocked. Throws SshConnectionFault.
  int poll(int timeoutMs);

  /// Waits, at most `timeoutMs`, for more than what is there to be read already, and lets
  /// the server send it; returns early, and on a signal. False when no more will come.
  /// Throws SshConnectionFault.
  bool awaitMore(int timeoutMs);

  /// True when the command will say nothing more and all it said was read.
  bool atEof() const;
  /// Bytes of both streams that have arrived and were not read.
  std::size_t queuedBytes() const;
  /// Reads what is there of the stream (0 output, 1 error output), never waiting,
  /// until the buffer is full. Returns the number of bytes; 0 when nothing was there.
  /// Throws SshConnectionFault.
  int read(int stream, char* buffer, std::size_t size);
  /// Drops what has arrived for streams that do not exist, which only a broken or
  /// hostile server sends: it would keep the channel from ever being at its end.
  void dropUnknownStreams();

  /// Sends bytes to the command's standard input; returns how many it took, which
  /// is 0 after a wait, or the library's negative error. A command that has ended
  /// takes everything: its exit status speaks. `onStall` is called when the command
  /// can neither take input nor get rid of its output. Throws SshConnectionFault.
  int write(const char* bytes, std::size_t size, const std::function<void()>& onStall);
  /// Tells the command that its input ends here; 0, or the library's error. Throws
  /// SshConnectionFault.
  int sendEof();

  /// Waits for the end of the command. 128 plus the number for one ended by a
  /// signal, 255 when it has no such number or was never started. Throws
  /// SshConnectionFault when the connection ended first.
  int waitForExitStatus();

 private:
  bool isClosed() const;
  int libraryPoll(unsigned long& events) const;
  std::size_t queueRoom() const;
  bool isIdle() const;
  bool isStalled() const;
  void readBufferedPackets() const;

  Session& session_;
  bool refused_ = false;
  bool talking_ = false;
};

/// The SSH session over a connected socket. The order of the bases matters: what the
/// library's callbacks use outlives the handle.
class Session : private CallbackData, public Handle<LIBSSH2_SESSION, dtm_libssh2_session_free> {
 public:
  /// What handshake and authentication together may take.
  static constexpr std::chrono::milliseconds LOGIN_LIMIT = std::chrono::seconds(120);

  /// Which ciphers are offered, where the library has some that authenticate by themselves and
  /// does well with them. Its own order is kept where it has not.
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
  /// InvalidHandle when it does not tell its methods.
  void authorize(const std::string& login, const std::string& password);
  /// The same, but by key first, and by the password, if there is one, where the server takes
  /// no key, does not take this one, or wants both. `key` is what the identity names; null for
  /// the agent. Throws IdentityError when that does not let the login in, InvalidHandle as above.
  void authorize(const std::string& login, const std::string& password,
                 const LoginIdentity& identity, const PrivateKey* key);
  /// Fills `methods` with what the server allows for `login`. Throws InvalidHandle.
  void getAuthMethodsList(const std::string& login, std::vector<std::string>& methods);
  /// Answers every prompt with the one of the CallbackData.
  static void userauth_callback(const char* name, int nameLength, const char* instruction,
                                int instructionLength, int promptsNumber,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT* prompts,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract);

  /// Starts a command. The channel must be destroyed before the session. Throws
  /// InvalidHandle when the server opens no channel.
  std::unique_ptr<Channel> openExecChannel(const std::string& command, Channel::Mode mode);
  /// Opens an idle channel that stays as long as the session: servers old enough to
  /// need compatibility mode may end a session with no channel in it.
  void create_reserve_channel();

  /// Sends a message that needs no answer, every 2 s at most: shows life during long
  /// local work to a server that would drop a silent client.
  void keepAlive();

  /// The library's text for its last error.
  std::string lastError() const;

  /// For Channel. Waits for the socket, at most `timeoutMs`; `events` as for ppoll.
  void waitForSocket(short events, int timeoutMs);
  /// Waits until the library, told to wait by LIBSSH2_ERROR_EAGAIN, may go on.
  void waitUntilReady();
  /// For Channel. What is known of the way to the server.
  ReceiveWindow& receiveWindow() { return receiveWindow_; }
  /// For Channel. Another command is running, or has ended.
  void countChannel(int change);
  /// True when the library still has bytes to send that the socket did not take.
  bool isSendPending() const;
  /// True when the peer has ended the connection.
  bool isPeerGone() const;
  /// Marks the connection as lost: whatever would still be sent or awaited in a
  /// polite farewell fails at once.
  void abandon() noexcept;
  /// Marks it so and throws SshConnectionFault.
  [[noreturn]] void raiseLost();
  /// Throws SshConnectionFault when a packet has come damaged. The library drops it,
  /// tells whoever called it last, and goes on as if nothing was missing.
  void requireIntact();

 private:
  using Clock = std::chrono::steady_clock;

  void preferHostKeys(const std::vector<std::string>& types);
  void preferCiphers(Ciphers wanted);
  void start();
  LIBSSH2_CHANNEL* openChannel();
  bool authorizeByPassword(const std::string& login, const std::string& password);
  bool authorizeInteractively(const std::string& login, const std::string& password);
  void finishLogin();
  void requireLoginTime(int result);

  /// What a login by key has come to.
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

  int socket_;
  bool compatibility_;
  std::unique_ptr<Channel> reserveChannel_;
  Clock::time_point loginDeadline_;
  Clock::time_point lastKeepAlive_;
  ReceiveWindow receiveWindow_;
  int openChannels_ = 0;
  bool hasClosedChannel_ = false;
};

}  // namespace libssh2pp
