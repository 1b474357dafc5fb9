#include "transport/ssh_channel.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <log4cpp/Category.hh>
#include <map>
#include <optional>

#include "transport/libssh2pp.h"

namespace libssh2pp {

namespace {

using Clock = std::chrono::steady_clock;

log4cpp::Category& channelLog = log4cpp::Category::getInstance("k.libssh2pp.Channel");

/// What the library may hold of a command's output. It walks through all of it with
/// each read; the rest is better off in the system's buffers.
constexpr std::size_t QUEUE_BYTES = 256 << 10;
constexpr unsigned long CONNECTION_LOST_MASK =
    LIBSSH2_POLLFD_SESSION_CLOSED | LIBSSH2_POLLFD_CHANNEL_CLOSED;

/// Switches the session to non-blocking calls, and back.
class NonBlockingGuard {
 public:
  explicit NonBlockingGuard(LIBSSH2_SESSION* session) : session_(session) {
    libssh2_session_set_blocking(session_, 0);
  }
  ~NonBlockingGuard() { libssh2_session_set_blocking(session_, 1); }
  NonBlockingGuard(const NonBlockingGuard&) = delete;
  NonBlockingGuard& operator=(const NonBlockingGuard&) = delete;

 private:
  LIBSSH2_SESSION* session_;
};

/// What a shell would report for a command ended by the signal, which the protocol
/// names without "SIG".
int statusOfSignal(const std::string& name) {
  static const std::map<std::string, int> numbers = {
      {"ABRT", SIGABRT}, {"ALRM", SIGALRM}, {"BUS", SIGBUS},   {"FPE", SIGFPE},   {"HUP", SIGHUP},
      {"ILL", SIGILL},   {"INT", SIGINT},   {"KILL", SIGKILL}, {"PIPE", SIGPIPE}, {"QUIT", SIGQUIT},
      {"SEGV", SIGSEGV}, {"SYS", SIGSYS},   {"TERM", SIGTERM}, {"TRAP", SIGTRAP}, {"USR1", SIGUSR1},
      {"USR2", SIGUSR2}, {"XCPU", SIGXCPU}, {"XFSZ", SIGXFSZ}};
  const auto found = numbers.find(name);
  return found == numbers.end() ? 255 : 128 + found->second;
}

/// The name of the signal that ended the command, if one did.
std::optional<std::string> exitSignalOf(LIBSSH2_CHANNEL* channel, LIBSSH2_SESSION* session) {
  // The peer chooses the name; no real one is longer.
  constexpr std::size_t LONGEST_NAME = 32;
  char* raw = nullptr;
  std::size_t length = 0;
  libssh2_channel_get_exit_signal(channel, &raw, &length, nullptr, nullptr, nullptr, nullptr);
  if (!raw) return std::nullopt;
  std::string name(raw, std::min(length, LONGEST_NAME));
  libssh2_free(session, raw);
  return name;
}

/// True when the library has received what is no proper packet: it says so once, drops
/// it, and goes on with the next one.
bool isDamage(long result) {
  return result < 0 && result != LIBSSH2_ERROR_EAGAIN && result != LIBSSH2_ERROR_CHANNEL_CLOSED &&
         !isSocketError(result);
}

/// No more than so many bytes are received while it lives. Only for calls that do not
/// wait: the others would wait for what they may not have.
class ReceiveLimit {
 public:
  ReceiveLimit(CallbackData& data, std::size_t bytes) : data_(data) { data_.allowance = bytes; }
  ~ReceiveLimit() { data_.allowance = CallbackData::UNLIMITED; }
  ReceiveLimit(const ReceiveLimit&) = delete;
  ReceiveLimit& operator=(const ReceiveLimit&) = delete;

 private:
  CallbackData& data_;
};

}  // namespace

CallDeadlineGuard::~CallDeadlineGuard() {
  limited_.liftLimit();
}

void dtm_libssh2_channel_free(LIBSSH2_CHANNEL* channel) noexcept {
  // Left over after its time-out, the channel goes with the session.
  retryInterrupted([&] { return libssh2_channel_free(channel); });
}

Channel::Channel(LIBSSH2_CHANNEL* channel, Connection& connection)
    : CallDeadlineGuard(connection), Handle(channel), connection_(connection) {
  connection_.countChannel(1);
}

Channel::~Channel() {
  channelLog.debug(std::string("Closed"));
  connection_.countChannel(-1);
  // Freeing, which the handle does next, waits for the peer's close message: for ever if
  // none comes.
  connection_.limitCalls(Clock::now() + FAREWELL_LIMIT);
}

void Channel::startCommand(const std::string& command, Mode mode) {
  // Despite its name, this function sets the flag of the whole session.
  libssh2_channel_set_blocking(get(), mode);
  int result;
  while ((result = retryInterrupted([&] {
            return libssh2_channel_process_startup(get(), "exec", 4, command.data(),
                                                   static_cast<unsigned int>(command.size()));
          })) == LIBSSH2_ERROR_EAGAIN) {
    connection_.waitUntilReady();
  }
  libssh2_session_set_blocking(connection_.session(), 1);
  if (result == 0) return;
  if (isSocketError(result)) connection_.raiseLost({HERE});
  // The server leaves a refused channel open for ever; closed from here, it looks as
  // if the command had ended at once.
  refused_ = true;
  connection_.limitCalls(Clock::now() + FAREWELL_LIMIT);
  const CallDeadlineGuard liftAfterwards(connection_);
  libssh2_channel_close(get());
}

int Channel::poll(int timeoutMs) {
  // What came along with the answer to an earlier call lies in the library's buffer,
  // where no wait for the socket would see it.
  readBufferedPackets();
  if (!isIdle()) return 1;
  // libssh2_poll itself never returns once the peer has closed the socket, ignores
  // signals, error output and the end of the output.
  connection_.waitForSocket(POLLIN | POLLRDHUP, timeoutMs);
  unsigned long events = 0;
  const int result = libraryPoll(events);
  const bool lost = (events & CONNECTION_LOST_MASK) == CONNECTION_LOST_MASK;
  // A socket that the peer closed without a close message is not reported there.
  if (lost || (isIdle() && connection_.isPeerGone())) {
    connection_.raiseLost({HERE});
  }
  return result;
}

bool Channel::awaitMore(int timeoutMs) {
  const std::size_t there = queuedBytes();
  openWindow();
  readBufferedPackets();
  if (queuedBytes() > there) return true;
  // The library reports the end of the output only after all of it is read, a close message at
  // once.
  if (isClosed() || connection_.isPeerGone()) return false;
  connection_.waitForSocket(POLLIN | POLLRDHUP, timeoutMs);
  return true;
}

/// Makes the library read the packets that have arrived already; a read of no bytes does just
/// that.
void Channel::readBufferedPackets() const {
  const NonBlockingGuard nonBlocking(connection_.session());
  const ReceiveLimit limit(connection_.callbackData(), queueRoom());
  char nothing = 0;
  // A lost connection can wait until what has come before is read.
  if (isDamage(libssh2_channel_read_ex(get(), 0, &nothing, 0))) connection_.raiseLost({HERE});
  connection_.requireIntact({HERE});
}

/// True when only the peer can bring anything new. A closed channel is at its end.
bool Channel::isIdle() const {
  return queuedBytes() == 0 && !atEof();
}

bool Channel::atEof() const {
  return refused_ || libssh2_channel_eof(get()) == 1;
}

std::size_t Channel::queuedBytes() const {
  // libssh2_poll_channel_read does not do: it fails for every channel once the server
  // has sent a one-byte message, and does not distinguish the streams.
  unsigned long queued = 0;
  libssh2_channel_window_read_ex(get(), &queued, nullptr);
  return queued;
}

void Channel::dropUnknownStreams() {
  retryInterrupted(
      [&] { return libssh2_channel_flush_ex(get(), LIBSSH2_CHANNEL_FLUSH_EXTENDED_DATA); });
}

bool Channel::isClosed() const {
  const auto reportsClosed = [this] {
    unsigned long events = 0;
    libraryPoll(events);
    return (events & CONNECTION_LOST_MASK) == LIBSSH2_POLLFD_CHANNEL_CLOSED;
  };
  // libssh2_poll reports before it reads, so ask twice.
  return refused_ || reportsClosed() || reportsClosed();
}

/// One pass of libssh2_poll, never waiting; returns its result.
int Channel::libraryPoll(unsigned long& events) const {
  LIBSSH2_POLLFD descriptor{};
  descriptor.type = LIBSSH2_POLLFD_CHANNEL;
  descriptor.fd.channel = get();
  // Without a wanted event it would not check the channel at all.
  descriptor.events = LIBSSH2_POLLFD_POLLIN;
  // It would read damaged packets without reporting them.
  readBufferedPackets();
  const ReceiveLimit nothing(connection_.callbackData(), 0);
  const int result = libssh2_poll(&descriptor, 1, 0);
  events = descriptor.revents;
  return result;
}

std::size_t Channel::queueRoom() const {
  const std::size_t queued = queuedBytes();
  return queued < QUEUE_BYTES ? QUEUE_BYTES - queued : 0;
}

/// Early, so that the server need not wait for each of our reads; and so far that a
/// read, which never waits, need not do it. A window adjustment that has to be tried
/// again, as in a key exchange, is otherwise announced with one number and counted with
/// another by the library, which then drops what it takes for too much data.
void Channel::openWindow() {
  const std::size_t window = libssh2_channel_window_read_ex(get(), nullptr, nullptr);
  const auto now = Clock::now();
  if (!windowOpened_) connection_.receiveWindow().begin(window, now);
  windowOpened_ = true;
  const std::size_t granted = connection_.receiveWindow().grant(window, now);
  if (granted == 0) return;
  // A failure is a lost connection, and the read's to report.
  retryInterrupted(
      [&] { return libssh2_channel_receive_window_adjust2(get(), granted, 1, nullptr); });
}

int Channel::read(int stream, char* buffer, std::size_t size) {
  openWindow();
  const NonBlockingGuard nonBlocking(connection_.session());
  const ReceiveLimit limit(connection_.callbackData(), queueRoom());
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = libssh2_channel_read_ex(get(), stream, buffer + done, size - done);
    if (got == 0 || got == LIBSSH2_ERROR_EAGAIN) break;
    if (got < 0) {
      // What was read before a loss stays good, and the loss comes again.
      if (done > 0 && isSocketError(got)) break;
      connection_.raiseLost({HERE});
    }
    done += static_cast<std::size_t>(got);
  }
  return static_cast<int>(done);
}

int Channel::write(const char* bytes, std::size_t size, const std::function<void()>& onStall) {
  if (refused_) return static_cast<int>(size);
  ssize_t written;
  {
    const NonBlockingGuard nonBlocking(connection_.session());
    written = libssh2_channel_write_ex(get(), 0, bytes, size);
  }
  if (written > 0) return static_cast<int>(written);
  if (written < 0 && written != LIBSSH2_ERROR_EAGAIN) {
    // A reset does not show at the socket while there is something to be read.
    if (!isSocketError(written) && !connection_.isPeerGone()) return static_cast<int>(written);
    connection_.raiseLost({HERE});
  }
  const auto windowIsShut = [this] { return libssh2_channel_window_write_ex(get(), nullptr) == 0; };
  // A packet that was sent in part must be finished before anything else is done.
  if (!connection_.isSendPending() && windowIsShut()) {
    if (isClosed()) return static_cast<int>(size);
    if (isStalled()) {
      onStall();
      return 0;
    }
    // The check of the channel read what had arrived; a wait would not see that.
    if (!windowIsShut()) return 0;
  }
  if (connection_.isPeerGone()) {
    connection_.raiseLost({HERE});
  }
  connection_.waitUntilReady();
  return 0;
}

/// True when the command's output fills the window: it waits for us to read, and we
/// for it.
bool Channel::isStalled() const {
  // The window counts what was not read yet.
  unsigned long queued = 0;
  const unsigned long window = libssh2_channel_window_read_ex(get(), &queued, nullptr);
  return queued > 0 && window < queued + PACKET_BYTES;
}

int Channel::sendEof() {
  if (refused_) return 0;
  const int result = retryInterrupted([&] { return libssh2_channel_send_eof(get()); });
  if (isSocketError(result)) connection_.raiseLost({HERE});
  return result;
}

int Channel::waitForExitStatus() {
  if (refused_ && !connection_.isPeerGone()) return REFUSED_STATUS;
  // The library sends nothing while it waits.
  while (connection_.keepsAliveInWaits() && !isClosed() && !connection_.isPeerGone()) {
    connection_.waitUntilReady();
  }
  // Without this a lost connection and a signal would both look like status 0.
  if (refused_ || retryInterrupted([&] { return libssh2_channel_wait_closed(get()); }) != 0) {
    connection_.raiseLost({HERE});
  }
  // A status behind a damaged packet may have been in the library's buffer.
  connection_.requireIntact({HERE});
  const std::optional<std::string> signalName = exitSignalOf(get(), connection_.session());
  return signalName ? statusOfSignal(*signalName) : libssh2_channel_get_exit_status(get());
}

}  // namespace libssh2pp
