#include "transport/libssh2pp.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>

#include "transport/ssh_channel.h"

namespace libssh2pp {

namespace {

using Clock = std::chrono::steady_clock;

/// As often as ssh asks the jump host for a sign of life.
constexpr std::chrono::seconds LONGEST_SILENCE{30};

bool isWritable(int socket) {
  pollfd writable = {socket, POLLOUT, 0};
  return poll(&writable, 1, 0) == 1;
}

/// The signal mask of the process, but with SIGALRM unblocked.
sigset_t maskLettingAlarmIn() {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  sigdelset(&mask, SIGALRM);
  return mask;
}

/// In place of the library's own, which knows no deadline. Its result is a negative
/// error number when nothing was received.
ssize_t receive(libssh2_socket_t socket, void* buffer, std::size_t size, int flags,
                void** abstract) {
  CallbackData& data = *static_cast<CallbackData*>(*abstract);
  if (data.lost) return -ECONNRESET;
  if (data.allowance == 0) return -EAGAIN;
  if (data.deadline != Clock::time_point::max() && Clock::now() >= data.deadline) {
    return -ETIMEDOUT;
  }
  const ssize_t received = recv(socket, buffer, std::min(size, data.allowance), flags);
  if (received < 0) return -errno;
  if (data.allowance != CallbackData::UNLIMITED)
    data.allowance -= static_cast<std::size_t>(received);
  if (!data.ciphers.empty()) {
    data.offer.add(static_cast<const char*>(buffer), static_cast<std::size_t>(received));
    data.isPairMixed = data.offer.makesMixedPairOf(data.ciphers);
    if (data.offer.isKnown()) data.ciphers.clear();
    if (data.isPairMixed) return -ECONNRESET;
  }
  return received;
}

/// A packet whose authentication code is wrong. Its bytes are missing from now on, so
/// that nothing that follows can be trusted.
int noteDamage(LIBSSH2_SESSION* /*session*/, const char* /*packet*/, int /*length*/,
               void** abstract) {
  static_cast<CallbackData*>(*abstract)->lost = true;
  return -1;
}

template <class Callback>
void setCallback(LIBSSH2_SESSION* session, int kind, Callback callback) {
#if LIBSSH2_VERSION_NUM >= 0x010b01
  libssh2_session_callback_set2(session, kind, reinterpret_cast<libssh2_cb_generic*>(callback));
#else
  libssh2_session_callback_set(session, kind, reinterpret_cast<void*>(callback));
#endif
}

}  // namespace

bool isSocketError(long result) {
  return result == LIBSSH2_ERROR_SOCKET_SEND || result == LIBSSH2_ERROR_SOCKET_RECV ||
         result == LIBSSH2_ERROR_SOCKET_DISCONNECT;
}

std::string libraryVersion() {
  return libssh2_version(0);
}

bool isLibrary1_11OrLater() {
  constexpr int FIRST_VERSION = 0x010b00;
  return libssh2_version(FIRST_VERSION) != nullptr;
}

LIBSSH2_SESSION* Connection::makeSession() {
  session_ = libssh2_session_init_ex(nullptr, nullptr, nullptr, &callbackData_);
  if (session_) {
    setCallback(session_, LIBSSH2_CALLBACK_RECV, receive);
    setCallback(session_, LIBSSH2_CALLBACK_MACERROR, noteDamage);
  }
  return session_;
}

void Connection::limitCalls(Clock::time_point deadline) {
  using std::chrono::milliseconds;
  callbackData_.deadline = deadline;
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
  // 0 would mean no limit.
  libssh2_session_set_timeout(session_, std::max<long>(1, static_cast<long>(left.count())));
}

void Connection::liftLimit() {
  callbackData_.deadline = Clock::time_point::max();
  libssh2_session_set_timeout(session_, 0);
}

void Connection::countChannel(int change) {
  openChannels_ += change;
  if (change < 0) hasClosedChannel_ = true;
}

void Connection::keepAlive(std::chrono::seconds interval) {
  // The library counts whole seconds; between two of them it has nothing to do.
  const auto now = Clock::now();
  if (now - lastKeepAlive_ < std::chrono::seconds(1)) return;
  // A message that the socket does not take at once would block the one after it.
  if (isSendPending() || !isWritable(socket_)) return;
  lastKeepAlive_ = now;
  // An interval that stayed set would end every blocking call after that time.
  libssh2_keepalive_config(session_, 0, static_cast<unsigned int>(interval.count()));
  int secondsToNext = 0;
  // A failure means a lost connection, which the next command reports.
  libssh2_keepalive_send(session_, &secondsToNext);
  libssh2_keepalive_config(session_, 0, 0);
}

void Connection::waitForSocket(short events, int timeoutMs) {
  if (keepsAliveInWaits_) keepAlive(LONGEST_SILENCE);
  pollfd socket = {socket_, events, 0};
  const timespec limit = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  const sigset_t mask = maskLettingAlarmIn();
  // The caller checks what there is, whatever ended the wait; a signal can, too.
  ppoll(&socket, 1, &limit, &mask);
}

void Connection::waitUntilReady() {
  // Limits the delay when the wake-up came while the caller checked the channel.
  constexpr int LIMIT_MS = 1000;
  waitForSocket(static_cast<short>(POLLIN | POLLRDHUP | (isSendPending() ? POLLOUT : 0)), LIMIT_MS);
}

bool Connection::isSendPending() const {
  return libssh2_session_block_directions(session_) & LIBSSH2_SESSION_BLOCK_OUTBOUND;
}

bool Connection::isPeerGone() const {
  char byte;
  const ssize_t peeked = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked < 0 && errno != EAGAIN && errno != EINTR);
}

void Connection::raiseLost(const Place& place) {
  abandon();
  throw Exc<&SshConnectionFault>(place);
}

void Connection::requireIntact(const Place& place) {
  if (callbackData_.lost) raiseLost(place);
}

void Connection::abandon() noexcept {
  callbackData_.lost = true;
  shutdown(socket_, SHUT_RDWR);
}

}  // namespace libssh2pp
