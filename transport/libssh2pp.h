#pragma once

#include <libssh2.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "transport/cipher_offer.h"
#include "transport/receive_window.h"

/// What the session and its channels share of the SSH library; for them alone.
namespace libssh2pp {

/// What the library's callbacks for a session need; the session's abstract pointer
/// leads to it.
struct CallbackData {
  static constexpr std::size_t UNLIMITED = std::numeric_limits<std::size_t>::max();

  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  /// Goes into every answer of keyboard-interactive; not owned.
  const std::string* promptAnswer = nullptr;
  /// Bytes that may still be received; beyond them it is as if nothing had come.
  std::size_t allowance = UNLIMITED;
  /// The connection is lost: no further byte is received.
  bool lost = false;
  /// The ciphers that are preferred in both directions, if an authenticating one is among them;
  /// else none.
  std::vector<std::string> ciphers = {};
  CipherOffer offer = {};
  /// The server would choose an authenticating cipher for one direction only.
  bool isPairMixed = false;
};

constexpr unsigned int PACKET_BYTES = 16384;
/// How long closing waits for the peer's close message.
constexpr std::chrono::seconds FAREWELL_LIMIT{3};

/// True when the library's last call failed because a signal interrupted its wait:
/// its older releases report that as a time-out. `errno` must have been 0 before.
inline bool wasInterrupted(long result) {
  return result == LIBSSH2_ERROR_TIMEOUT && errno == EINTR;
}
template <class T>
bool wasInterrupted(T* result) {
  return !result && errno == EINTR;
}

/// Repeats a call of the library until no signal interrupts it. The library keeps
/// the state of an unfinished call, so that it goes on where it was.
template <class Call>
auto retryInterrupted(Call call) {
  for (;;) {
    errno = 0;
    const auto result = call();
    if (!wasInterrupted(result)) return result;
  }
}

/// True when the library could not use the connection any more.
bool isSocketError(long result);

std::string libraryVersion();

/// False for a library of before 1.11: it signs with RSA keys by SHA-1 only, and has no cipher that
/// authenticates by itself.
bool isLibrary1_11OrLater();

/// The connection of a session and its channels: the socket, the library's session over it, and
/// what is known of both.
class Connection {
 public:
  /// The socket stays the caller's and must outlive the connection.
  explicit Connection(int socket) : socket_(socket) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Makes the session, whose calls receive by this connection; the caller owns it, and frees it
  /// before the connection goes. Null when there is no memory.
  LIBSSH2_SESSION* makeSession();
  /// The one that was made.
  LIBSSH2_SESSION* session() const { return session_; }
  int socket() const { return socket_; }
  CallbackData& callbackData() { return callbackData_; }

  /// Limits the session's calls until `deadline`: the waits of each, and all that they
  /// read together, since a peer that never stops talking leaves no wait to limit.
  void limitCalls(std::chrono::steady_clock::time_point deadline);
  /// Lets the session's calls take any time.
  void liftLimit();

  /// What is known of the network path to the server.
  ReceiveWindow& receiveWindow() { return receiveWindow_; }
  /// Another command is running, or has ended.
  void countChannel(int change);
  /// True when a command has ended and no other one is running.
  bool isBetweenCommands() const { return hasClosedChannel_ && openChannels_ == 0; }

  /// Sends a message that needs no answer, unless one was sent within the last `interval`: shows
  /// life to a server that would drop a silent client.
  void keepAlive(std::chrono::seconds interval);
  /// From now on the waits of waitForSocket() do that, too. The system gives up a direct connection
  /// whose peer has vanished; one that is relayed ends only if the relay has something to deliver.
  void keepAliveInWaits() { keepsAliveInWaits_ = true; }
  bool keepsAliveInWaits() const { return keepsAliveInWaits_; }

  /// Waits for the socket, at most `timeoutMs`; `events` as for ppoll.
  void waitForSocket(short events, int timeoutMs);
  /// Waits until a call that returned LIBSSH2_ERROR_EAGAIN can be repeated.
  void waitUntilReady();
  /// True when the library still has bytes to send that the socket did not take.
  bool isSendPending() const;
  /// True when the peer has ended the connection.
  bool isPeerGone() const;
  /// Marks the connection as lost: what closing would still send or await
  /// fails at once.
  void abandon() noexcept;
  /// Marks it so and throws SshConnectionFault, raised at `place`.
  [[noreturn]] void raiseLost(const Place& place);
  /// Throws SshConnectionFault, raised at `place`, when a packet has come damaged. The library
  /// drops it, reports it to the current call alone, and goes on as if nothing was missing.
  void requireIntact(const Place& place);

 private:
  int socket_;
  LIBSSH2_SESSION* session_ = nullptr;
  CallbackData callbackData_;
  ReceiveWindow receiveWindow_;
  int openChannels_ = 0;
  bool hasClosedChannel_ = false;
  bool keepsAliveInWaits_ = false;
  std::chrono::steady_clock::time_point lastKeepAlive_;
};

}  // namespace libssh2pp
