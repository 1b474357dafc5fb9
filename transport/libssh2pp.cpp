#include "transport/libssh2pp.h"

#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <cstdlib>
#include <log4cpp/Category.hh>
#include <map>
#include <optional>

namespace libssh2pp {

namespace {

using Clock = std::chrono::steady_clock;

log4cpp::Category& sessionLog = log4cpp::Category::getInstance("k.libssh2pp.Session");
log4cpp::Category& channelLog = log4cpp::Category::getInstance("k.libssh2pp.Channel");

/// The library sends no more often than that; the least patient servers wait 3 s.
constexpr unsigned int KEEP_ALIVE_SECONDS = 2;
/// How long a server may take to clear a command away that has ended.
constexpr std::chrono::seconds CLEARANCE_LIMIT{2};
/// How long a farewell waits for the peer's.
constexpr std::chrono::seconds FAREWELL_LIMIT{3};
constexpr std::size_t WINDOW_BYTES = 65536;
/// What the library may hold of a command's output. It walks through all of it with
/// each read; the rest is better off in the system's buffers.
constexpr std::size_t QUEUE_BYTES = 256 << 10;
constexpr unsigned int PACKET_BYTES = 16384;
constexpr unsigned long CONNECTION_LOST_MASK =
    LIBSSH2_POLLFD_SESSION_CLOSED | LIBSSH2_POLLFD_CHANNEL_CLOSED;

/// True when the library's last call failed because a signal interrupted its wait:
/// its older releases report that as a time-out. `errno` must have been 0 before.
bool wasInterrupted(long result) {
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

/// Switches the session to non-blocking calls, and back.
class NonBlockingGuard {
 public:
  explicit NonBlockingGuard(const Session& session) : session_(session) {
    libssh2_session_set_blocking(session_.get(), 0);
  }
  ~NonBlockingGuard() { libssh2_session_set_blocking(session_.get(), 1); }
  NonBlockingGuard(const NonBlockingGuard&) = delete;
  NonBlockingGuard& operator=(const NonBlockingGuard&) = delete;

 private:
  const Session& session_;
};

/// True when the library could not use the connection any more.
bool isSocketError(long result) {
  return result == LIBSSH2_ERROR_SOCKET_SEND || result == LIBSSH2_ERROR_SOCKET_RECV ||
         result == LIBSSH2_ERROR_SOCKET_DISCONNECT;
}

/// The signal mask of the process, but with SIGALRM let in.
sigset_t maskLettingAlarmIn() {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  sigdelset(&mask, SIGALRM);
  return mask;
}

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

std::string libraryVersion() {
  return libssh2_version(0);
}

/// False for a library of before 1.11: it signs with RSA keys by SHA-1 only, and has no cipher that
/// authenticates by itself.
bool isLibrary1_11OrLater() {
  constexpr int FIRST_VERSION = 0x010b00;
  return libssh2_version(FIRST_VERSION) != nullptr;
}

constexpr std::size_t UNLIMITED = std::numeric_limits<std::size_t>::max();

CallbackData& callbackDataOf(LIBSSH2_SESSION* session) {
  return **reinterpret_cast<CallbackData**>(libssh2_session_abstract(session));
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
  if (data.allowance != UNLIMITED) data.allowance -= static_cast<std::size_t>(received);
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

/// No more than so many bytes are received while it lives. Only for calls that do not
/// wait: the others would wait for what they may not have.
class ReceiveLimit {
 public:
  ReceiveLimit(LIBSSH2_SESSION* session, std::size_t bytes) : data_(callbackDataOf(session)) {
    data_.allowance = bytes;
  }
  ~ReceiveLimit() { data_.allowance = UNLIMITED; }
  ReceiveLimit(const ReceiveLimit&) = delete;
  ReceiveLimit& operator=(const ReceiveLimit&) = delete;

 private:
  CallbackData& data_;
};

}  // namespace

void limitCalls(LIBSSH2_SESSION* session, Clock::time_point deadline) {
  using std::chrono::milliseconds;
  callbackDataOf(session).deadline = deadline;
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
  // 0 would mean no limit.
  libssh2_session_set_timeout(session, std::max<long>(1, static_cast<long>(left.count())));
}

void liftLimit(LIBSSH2_SESSION* session) {
  callbackDataOf(session).deadline = Clock::time_point::max();
  libssh2_session_set_timeout(session, 0);
}

void dtm_libssh2_session_free(LIBSSH2_SESSION* session) noexcept {
  libssh2_session_free(session);
}

void dtm_libssh2_channel_free(LIBSSH2_CHANNEL* channel) noexcept {
  // Left over after its time-out, the channel goes with the session.
  retryInterrupted([&] { return libssh2_channel_free(channel); });
}

// --- Channel ---

Channel::Channel(LIBSSH2_CHANNEL* channel, Session& session)
    : TimeLimitLifter(session.get()), Handle(channel), session_(session) {
  session_.countChannel(1);
}

Channel::~Channel() {
  channelLog.debug(std::string("Closed"));
  session_.countChannel(-1);
  // Freeing, which the handle does next, waits for the peer's farewell: for ever if it
  // has none.
  limitCalls(session_.get(), Clock::now() + FAREWELL_LIMIT);
}

void Channel::startCommand(const std::string& command, Mode mode) {
  // This flag is the whole session's, whatever its name says.
  libssh2_channel_set_blocking(get(), mode);
  int result;
  while ((result = retryInterrupted([&] {
            return libssh2_channel_process_startup(get(), "exec", 4, command.data(),
                                                   static_cast<unsigned int>(command.size()));
          })) == LIBSSH2_ERROR_EAGAIN) {
    session_.waitUntilReady();
  }
  libssh2_session_set_blocking(session_.get(), 1);
  if (result == 0) return;
  if (isSocketError(result)) session_.raiseLost();
  // The server leaves a refused channel open for ever; closed from here, it looks as
  // if the command had ended at once.
  refused_ = true;
  limitCalls(session_.get(), Clock::now() + FAREWELL_LIMIT);
  const TimeLimitLifter liftAfterwards(session_.get());
  libssh2_channel_close(get());
}

int Channel::poll(int timeoutMs) {
  // What came along with the answer to an earlier call lies in the library's buffer,
  // where no wait for the socket would see it.
  readBufferedPackets();
  if (!isIdle()) return 1;
  // libssh2_poll itself never returns once the peer has closed the socket, ignores
  // signals, error output and the end of the output.
  session_.waitForSocket(POLLIN | POLLRDHUP, timeoutMs);
  unsigned long events = 0;
  const int result = libraryPoll(events);
  const bool lost = (events & CONNECTION_LOST_MASK) == CONNECTION_LOST_MASK;
  // A socket that the peer closed without a farewell is not reported there.
  if (lost || (isIdle() && session_.isPeerGone())) {
    session_.raiseLost();
  }
  return result;
}

bool Channel::awaitMore(int timeoutMs) {
  const std::size_t there = queuedBytes();
  openWindow();
  readBufferedPackets();
  if (queuedBytes() > there) return true;
  // The end of the output is not told before all of it is read, but a farewell is.
  if (isClosed() || session_.isPeerGone()) return false;
  session_.waitForSocket(POLLIN | POLLRDHUP, timeoutMs);
  return true;
}

/// Takes in the packets that have arrived already; a read of nothing does just that.
void Channel::readBufferedPackets() const {
  const NonBlockingGuard nonBlocking(session_);
  const ReceiveLimit limit(session_.get(), queueRoom());
  char nothing = 0;
  // A lost connection can wait until what has come before is read.
  if (isDamage(libssh2_channel_read_ex(get(), 0, &nothing, 0))) session_.raiseLost();
  session_.requireIntact();
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
  // has sent a one-byte message, and does not tell the streams apart.
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
  // A pass tells what was known before it, and then takes in what has arrived.
  return refused_ || reportsClosed() || reportsClosed();
}

/// One pass of libssh2_poll, never waiting; returns its result.
int Channel::libraryPoll(unsigned long& events) const {
  LIBSSH2_POLLFD descriptor{};
  descriptor.type = LIBSSH2_POLLFD_CHANNEL;
  descriptor.fd.channel = get();
  // Without a wanted event it would not look at the channel at all.
  descriptor.events = LIBSSH2_POLLFD_POLLIN;
  // What it received it would take in without a word of what was wrong with it.
  readBufferedPackets();
  const ReceiveLimit nothing(session_.get(), 0);
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
  if (!talking_) session_.receiveWindow().begin(window, now);
  talking_ = true;
  const std::size_t granted = session_.receiveWindow().grant(window, now);
  if (granted == 0) return;
  // A failure is a lost connection, and the read's to report.
  retryInterrupted(
      [&] { return libssh2_channel_receive_window_adjust2(get(), granted, 1, nullptr); });
}

int Channel::read(int stream, char* buffer, std::size_t size) {
  openWindow();
  const NonBlockingGuard nonBlocking(session_);
  const ReceiveLimit limit(session_.get(), queueRoom());
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = libssh2_channel_read_ex(get(), stream, buffer + done, size - done);
    if (got == 0 || got == LIBSSH2_ERROR_EAGAIN) break;
    if (got < 0) {
      // What was read before a loss stays good, and the loss comes again.
      if (done > 0 && isSocketError(got)) break;
      session_.raiseLost();
    }
    done += static_cast<std::size_t>(got);
  }
  return static_cast<int>(done);
}

int Channel::write(const char* bytes, std::size_t size, const std::function<void()>& onStall) {
  if (refused_) return static_cast<int>(size);
  ssize_t written;
  {
    const NonBlockingGuard nonBlocking(session_);
    written = libssh2_channel_write_ex(get(), 0, bytes, size);
  }
  if (written > 0) return static_cast<int>(written);
  if (written < 0 && written != LIBSSH2_ERROR_EAGAIN) {
    // A reset does not show at the socket while there is something to be read.
    if (!isSocketError(written) && !session_.isPeerGone()) return static_cast<int>(written);
    session_.raiseLost();
  }
  const auto windowIsShut = [this] { return libssh2_channel_window_write_ex(get(), nullptr) == 0; };
  // A packet that was sent in part must be finished before anything else is done.
  if (!session_.isSendPending() && windowIsShut()) {
    if (isClosed()) return static_cast<int>(size);
    if (isStalled()) {
      onStall();
      return 0;
    }
    // Looking at the channel took in what had arrived; a wait would not see it.
    if (!windowIsShut()) return 0;
  }
  if (session_.isPeerGone()) {
    session_.raiseLost();
  }
  session_.waitUntilReady();
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
  if (isSocketError(result)) session_.raiseLost();
  return result;
}

int Channel::waitForExitStatus() {
  if (refused_ && !session_.isPeerGone()) return REFUSED_STATUS;
  // Without this a lost connection and a signal would both look like status 0.
  if (refused_ || retryInterrupted([&] { return libssh2_channel_wait_closed(get()); }) != 0) {
    session_.raiseLost();
  }
  // What was told behind a damaged packet may have been in the library's buffer.
  session_.requireIntact();
  const std::optional<std::string> signalName = exitSignalOf(get(), session_.get());
  return signalName ? statusOfSignal(*signalName) : libssh2_channel_get_exit_status(get());
}

// --- Session ---

Session::Session(int socket, bool disableEncryption, bool compatibility,
                 std::chrono::milliseconds loginLimit, const std::vector<std::string>& hostKeyTypes,
                 Ciphers wanted)
    : Handle(libssh2_session_init_ex(nullptr, nullptr, nullptr, static_cast<CallbackData*>(this))),
      socket_(socket),
      compatibility_(compatibility),
      loginDeadline_(Clock::now() + loginLimit) {
  sessionLog.debug(std::string("Trying to start SSH session"));
  setCallback(get(), LIBSSH2_CALLBACK_RECV, receive);
  setCallback(get(), LIBSSH2_CALLBACK_MACERROR, noteDamage);
  if (disableEncryption) {
    sessionLog.debug(std::string("Disabling SSH encryption"));
    libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_CS, "none");
    libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_SC, "none");
  } else if (isLibrary1_11OrLater()) {
    preferCiphers(wanted);
  }
  if (compatibility_) {
    libssh2_session_method_pref(get(), LIBSSH2_METHOD_KEX, "diffie-hellman-group1-sha1");
  }
  if (!hostKeyTypes.empty()) preferHostKeys(hostKeyTypes);
  start();
  // The server may exchange keys again, and no more in plain text.
  ciphers.clear();
}

/// The others stay on offer behind them: a server whose key was replaced by one of
/// another kind is better told apart by the key than by a failed key exchange.
void Session::preferHostKeys(const std::vector<std::string>& types) {
  std::vector<std::string> algorithms = supportedAlgorithms(LIBSSH2_METHOD_HOSTKEY);
  if (algorithms.empty()) return;
  std::stable_partition(algorithms.begin(), algorithms.end(), [&](const std::string& algorithm) {
    // One kind of key signs in several ways.
    const std::string type = algorithm.rfind("rsa-sha2-", 0) == 0 ? "ssh-rsa" : algorithm;
    return std::find(types.begin(), types.end(), type) != types.end();
  });
  libssh2_session_method_pref(get(), LIBSSH2_METHOD_HOSTKEY, boost::join(algorithms, ",").c_str());
}

/// That library begins its own order with one that is slow everywhere. One that authenticates by
/// itself needs no sum of each packet besides. Both ways alike: of one that does and one that does
/// not the library makes no pair.
void Session::preferCiphers(Ciphers wanted) {
  std::vector<std::string> algorithms = supportedAlgorithms(LIBSSH2_METHOD_CRYPT_CS);
  const auto isCounterMode = [](const std::string& name) { return boost::ends_with(name, "-ctr"); };
  const auto counterModes =
      std::stable_partition(algorithms.begin(), algorithms.end(), isGcmCipher);
  std::stable_partition(counterModes, algorithms.end(), isCounterMode);
  if (wanted == WITHOUT_GCM) algorithms.erase(algorithms.begin(), counterModes);
  if (algorithms.empty()) return;
  const std::string order = boost::join(algorithms, ",");
  libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_CS, order.c_str());
  libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_SC, order.c_str());
  if (wanted == FASTEST_FIRST) ciphers = std::move(algorithms);
}

/// Those of the library, of a kind of method; empty when it does not tell them.
std::vector<std::string> Session::supportedAlgorithms(int kind) const {
  const char** supported = nullptr;
  const int count = libssh2_session_supported_algs(get(), kind, &supported);
  if (count <= 0) return {};
  std::vector<std::string> algorithms(supported, supported + count);
  libssh2_free(get(), supported);
  return algorithms;
}

bool Session::knows(int kind, const std::string& algorithm) const {
  const std::vector<std::string> known = supportedAlgorithms(kind);
  return std::find(known.begin(), known.end(), algorithm) != known.end();
}

void Session::start() {
  const int result = retryInterrupted([&] {
    limitCalls(get(), loginDeadline_);
    return libssh2_session_handshake(get(), socket_);
  });
  if (isPairMixed) throw MixedCipherPair();
  if (result != 0) {
    const std::string error = lastError();
    reportStartFailure(error);
    throw Exc<&UnableToStartSshSession>(HERE) % error;
  }
  const char* cipher = libssh2_session_methods(get(), LIBSSH2_METHOD_CRYPT_SC);
  sessionLog.debug(std::string("Selected ") + (cipher ? cipher : "") + " encryption method");
  sessionLog.debug(std::string("SSH session started successfully"));
}

void Session::reportStartFailure(const std::string& error) const {
  sessionLog.error("SSH session was not started: " + error);
  // What the peer is tells more than "unable to exchange encryption keys".
  if (const char* banner = libssh2_session_banner_get(get())) {
    sessionLog.error(std::string("The remote host presents itself as ") + banner);
  }
}

HostKey Session::hostKey() const {
  std::size_t size = 0;
  int type = 0;
  const char* blob = libssh2_session_hostkey(get(), &size, &type);
  return HostKey(blob ? std::string(blob, size) : "");
}

Session::~Session() {
  sessionLog.debug(std::string("SSH session finished"));
  reserveChannel_.reset();
  // A channel that could not be closed politely would be waited for once more.
  abandon();
}

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
  liftLimit(get());
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
    limitCalls(get(), loginDeadline_);
    // With a null for the passphrase the library would ask for it on the terminal.
    return libssh2_userauth_publickey_frommemory(get(), attempt.login.data(), attempt.login.size(),
                                                 nullptr, 0, key.text().data(), key.text().size(),
                                                 attempt.identity.passphrase.c_str());
  });
  if (result == 0) return true;
  requireLoginTime(result);
  const bool isAnswer =
      result == LIBSSH2_ERROR_AUTHENTICATION_FAILED || result == LIBSSH2_ERROR_PUBLICKEY_UNVERIFIED;
  if (!isAnswer && !isSocketError(result) && !isPeerGone()) refuseKey(key);
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
  while (!attempt.isKeyTaken && !isPeerGone() &&
         libssh2_agent_get_identity(agent.get(), &key, key) == 0) {
    const int result = retryInterrupted([&] {
      limitCalls(get(), loginDeadline_);
      return libssh2_agent_userauth(agent.get(), attempt.login.c_str(), key);
    });
    if (result == 0) return true;
    requireLoginTime(result);
    const std::string blob(reinterpret_cast<const char*>(key->blob), key->blob_len);
    noteRefusal(result, "any key of the agent at SSH_AUTH_SOCK", HostKey(blob).type(), attempt);
  }
  return false;
}

/// What the server has answered to a key of the type. A signature that was asked for and is not
/// enough looks like a wrong one, but for what the server wants then.
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

/// Nothing when the server has had enough.
void Session::refreshMethods(KeyLogin& attempt) {
  attempt.methods.clear();
  try {
    getAuthMethodsList(attempt.login, attempt.methods);
  } catch (const Exc<&InvalidHandle>&) {
    requireLoginTime(libssh2_session_last_errno(get()));
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
    limitCalls(get(), loginDeadline_);
    return libssh2_userauth_password_ex(get(), login.data(), static_cast<unsigned>(login.size()),
                                        password.data(), static_cast<unsigned>(password.size()),
                                        nullptr);
  });
  if (result != 0) {
    requireLoginTime(result);
    return false;
  }
  // Not the same text as below; log readers tell the methods apart by it.
  sessionLog.debug(std::string("Authenticated succesfully"));
  return true;
}

bool Session::authorizeInteractively(const std::string& login, const std::string& password) {
  sessionLog.debug(std::string("Trying 'keyboard-interactive' authentication"));
  promptAnswer = &password;
  const int result = retryInterrupted([&] {
    limitCalls(get(), loginDeadline_);
    return libssh2_userauth_keyboard_interactive_ex(
        get(), login.data(), static_cast<unsigned>(login.size()), userauth_callback);
  });
  promptAnswer = nullptr;
  if (result != 0) {
    requireLoginTime(result);
    return false;
  }
  sessionLog.debug(std::string("Authenticated successfully"));
  return true;
}

/// A server that has not answered within the limit has refused nothing. The library counts whole
/// seconds, so that its time-out may come up to one before the deadline.
void Session::requireLoginTime(int result) {
  if (result == LIBSSH2_ERROR_TIMEOUT || Clock::now() >= loginDeadline_) raiseLost();
}

void Session::getAuthMethodsList(const std::string& login, std::vector<std::string>& methods) {
  sessionLog.debug("Getting userauth methods for user '" + login + "'");
  const char* text = retryInterrupted([&] {
    limitCalls(get(), loginDeadline_);
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

std::unique_ptr<Channel> Session::openExecChannel(const std::string& command, Channel::Mode mode) {
  sessionLog.debug("Opening SSH channel for command '" + command + "'");
  libssh2_session_set_blocking(get(), 1);
  auto channel = std::make_unique<Channel>(openChannel(), *this);
  // On a way that is known to be long the first bytes need not wait to be asked for more.
  if (receiveWindow_.target() > ReceiveWindow::SMALLEST) channel->openWindow();
  channel->startCommand(command, mode);
  return channel;
}

LIBSSH2_CHANNEL* Session::openChannel() {
  constexpr int PAUSE_MS = 20;
  const Clock::time_point end = Clock::now() + CLEARANCE_LIMIT;
  // A server that allows one command at a time may still be busy with the last one when
  // it has said farewell to it.
  const bool mayWait = hasClosedChannel_ && openChannels_ == 0;
  for (;;) {
    const Clock::time_point asked = Clock::now();
    LIBSSH2_CHANNEL* const channel = retryInterrupted([&] {
      return libssh2_channel_open_ex(get(), "session", 7, WINDOW_BYTES, PACKET_BYTES, nullptr, 0);
    });
    const bool refused =
        !channel && libssh2_session_last_errno(get()) == LIBSSH2_ERROR_CHANNEL_FAILURE;
    if (channel) receiveWindow_.addRoundTrip(Clock::now() - asked);
    if (!refused || !mayWait || Clock::now() >= end) return channel;
    waitForSocket(POLLRDHUP, PAUSE_MS);
  }
}

void Session::countChannel(int change) {
  openChannels_ += change;
  if (change < 0) hasClosedChannel_ = true;
}

void Session::create_reserve_channel() {
  sessionLog.debug(std::string("Create a reserve channel"));
  reserveChannel_ = openExecChannel("cat", Channel::NON_BLOCKING);
}

void Session::keepAlive() {
  // The library looks at whole seconds; asked between two of them it has nothing to do.
  const Clock::time_point now = Clock::now();
  if (now - lastKeepAlive_ < std::chrono::seconds(1)) return;
  lastKeepAlive_ = now;
  // An interval that stayed set would end every blocking call after that time.
  libssh2_keepalive_config(get(), 0, KEEP_ALIVE_SECONDS);
  int secondsToNext = 0;
  // A failure means a lost connection, which the next command reports.
  libssh2_keepalive_send(get(), &secondsToNext);
  libssh2_keepalive_config(get(), 0, 0);
}

std::string Session::lastError() const {
  char* text = nullptr;
  libssh2_session_last_error(get(), &text, nullptr, 0);
  return text ? text : "";
}

void Session::waitForSocket(short events, int timeoutMs) {
  pollfd socket = {socket_, events, 0};
  const timespec limit = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  const sigset_t mask = maskLettingAlarmIn();
  // Whatever ends the wait, a signal included, the caller looks at what there is.
  ppoll(&socket, 1, &limit, &mask);
}

void Session::waitUntilReady() {
  // Bounds what a wake-up costs that came while the channel was looked at.
  constexpr int LIMIT_MS = 1000;
  waitForSocket(static_cast<short>(POLLIN | POLLRDHUP | (isSendPending() ? POLLOUT : 0)), LIMIT_MS);
}

bool Session::isSendPending() const {
  return libssh2_session_block_directions(get()) & LIBSSH2_SESSION_BLOCK_OUTBOUND;
}

bool Session::isPeerGone() const {
  char byte;
  const ssize_t peeked = recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked < 0 && errno != EAGAIN && errno != EINTR);
}

void Session::raiseLost() {
  abandon();
  throw Exc<&SshConnectionFault>(HERE);
}

void Session::requireIntact() {
  if (lost) raiseLost();
}

void Session::abandon() noexcept {
  lost = true;
  shutdown(socket_, SHUT_RDWR);
}

}  // namespace libssh2pp
