#include "transport/ssh_session.h"

#include <poll.h>

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <log4cpp/Category.hh>

#include "transport/libssh2pp.h"

namespace libssh2pp {

namespace {

log4cpp::Category& sessionLog = log4cpp::Category::getInstance("k.libssh2pp.Session");

/// The library sends no more often than that; the least patient servers wait 3 s.
constexpr std::chrono::seconds KEEP_ALIVE_INTERVAL{2};
/// How long to retry while the server cleans up the last command.
constexpr std::chrono::seconds CLEARANCE_LIMIT{2};
constexpr std::size_t WINDOW_BYTES = 65536;

}  // namespace

ConnectionOwner::ConnectionOwner(int socket) : connection_(std::make_unique<Connection>(socket)) {}
ConnectionOwner::~ConnectionOwner() = default;

void dtm_libssh2_session_free(LIBSSH2_SESSION* session) noexcept {
  libssh2_session_free(session);
}

Session::Session(int socket, bool disableEncryption, bool compatibility,
                 std::chrono::milliseconds loginLimit, const std::vector<std::string>& hostKeyTypes,
                 Ciphers wanted)
    : ConnectionOwner(socket),
      Handle(connection().makeSession()),
      compatibility_(compatibility),
      loginDeadline_(Clock::now() + loginLimit) {
  sessionLog.debug(std::string("Trying to start SSH session"));
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
  keepCiphers();
  // The server may exchange keys again, and no more in plain text.
  connection().callbackData().ciphers.clear();
}

/// A server may list other ciphers in a later key exchange. If the exchange then chose AES-GCM for
/// one direction only, the library would abort the process.
void Session::keepCiphers() {
  for (const int kind : {LIBSSH2_METHOD_CRYPT_CS, LIBSSH2_METHOD_CRYPT_SC}) {
    const char* const cipher = libssh2_session_methods(get(), kind);
    if (cipher) libssh2_session_method_pref(get(), kind, cipher);
  }
}

/// The others stay on offer behind them: a server whose key was replaced by one of
/// another kind is better recognised by its key than by a failed key exchange.
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

/// The library's own order begins with a slow cipher. AES-GCM authenticates each packet itself and
/// needs no MAC besides. The order is the same for both directions, because the library cannot use
/// AES-GCM for one direction only.
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
  if (wanted == FASTEST_FIRST) connection().callbackData().ciphers = std::move(algorithms);
}

/// The algorithms of the library for a kind of method; empty when it cannot list them.
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
    connection().limitCalls(loginDeadline_);
    return libssh2_session_handshake(get(), connection().socket());
  });
  if (connection().callbackData().isPairMixed) throw MixedCipherPair();
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
  // The peer's name helps more than "unable to exchange encryption keys".
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
  connection().abandon();
}

std::unique_ptr<Channel> Session::openExecChannel(const std::string& command, Channel::Mode mode) {
  sessionLog.debug("Opening SSH channel for command '" + command + "'");
  libssh2_session_set_blocking(get(), 1);
  auto channel = std::make_unique<Channel>(openChannel(), connection());
  // With a long round trip, widen the window before the first bytes.
  if (connection().receiveWindow().target() > ReceiveWindow::SMALLEST) channel->openWindow();
  channel->startCommand(command, mode);
  return channel;
}

LIBSSH2_CHANNEL* Session::openChannel() {
  constexpr int PAUSE_MS = 20;
  const Clock::time_point end = Clock::now() + CLEARANCE_LIMIT;
  // A server that allows one command at a time may still be busy with the last one
  // after its close message.
  const bool mayWait = connection().isBetweenCommands();
  for (;;) {
    const Clock::time_point asked = Clock::now();
    LIBSSH2_CHANNEL* const channel = retryInterrupted([&] {
      return libssh2_channel_open_ex(get(), "session", 7, WINDOW_BYTES, PACKET_BYTES, nullptr, 0);
    });
    const bool refused =
        !channel && libssh2_session_last_errno(get()) == LIBSSH2_ERROR_CHANNEL_FAILURE;
    if (channel) connection().receiveWindow().addRoundTrip(Clock::now() - asked);
    if (!refused || !mayWait || Clock::now() >= end) return channel;
    connection().waitForSocket(POLLRDHUP, PAUSE_MS);
  }
}

void Session::create_reserve_channel() {
  sessionLog.debug(std::string("Create a reserve channel"));
  reserveChannel_ = openExecChannel("cat", Channel::NON_BLOCKING);
}

void Session::keepAlive() {
  connection().keepAlive(KEEP_ALIVE_INTERVAL);
}

void Session::keepAliveInWaits() {
  connection().keepAliveInWaits();
}

std::string Session::lastError() const {
  char* text = nullptr;
  libssh2_session_last_error(get(), &text, nullptr, 0);
  return text ? text : "";
}

}  // namespace libssh2pp
