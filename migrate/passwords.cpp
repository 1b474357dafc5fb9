#include "migrate/passwords.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "commons/unique_fd.h"
#include "hostlib/env_password.h"

namespace migrate {

const char* const LOGIN_VARIABLE = "QRV_PASSWORD";
const char* const SUDO_VARIABLE = "QRV_SUDO_PASSWORD";
const char* const KEY_VARIABLE = "QRV_KEY_PASSWORD";

namespace {

/// sondrel would cut a longer password, and the source host would refuse it.
constexpr std::size_t MAX_PASSWORD_BYTES = 4096;

[[noreturn]] void fail(const std::string& text) {
  throw Exc<&MigrateImpossible>(HERE) % text;
}

/// One byte; nothing at the end of the file.
std::optional<char> readByte(int fd, const std::string& what, Signals& signals) {
  for (;;) {
    std::vector<pollfd> waiting = {{fd, POLLIN, 0}};
    const int ready = signals.wait(waiting, -1);
    if (signals.requested() != 0) throw Interrupted{signals.requested()};
    if (ready == 0) continue;
    char byte = 0;
    const ssize_t got = ready < 0 ? -1 : read(fd, &byte, 1);
    if (got == 1) return byte;
    if (got == 0) return std::nullopt;
    if (errno != EINTR && errno != EAGAIN)
      fail("reading the " + what + ": " + std::strerror(errno));
  }
}

/// The next line without its end. Reads byte by byte: what follows the line belongs to another
/// reader.
Secret readLine(int fd, const std::string& what, Signals& signals) {
  std::string text;
  // Reserved at once: a growing string would leave copies of the password in memory.
  text.reserve(MAX_PASSWORD_BYTES + 1);
  while (const std::optional<char> byte = readByte(fd, what, signals)) {
    if (*byte == '\n') break;
    if (*byte == '\0') fail("the " + what + " holds a zero byte");
    if (text.size() == MAX_PASSWORD_BYTES) fail("the " + what + " is longer than 4096 bytes");
    text.push_back(*byte);
  }
  return Secret(std::move(text));
}

/// While it lives, the terminal does not show what is typed.
class HiddenInput {
 public:
  explicit HiddenInput(int terminal) : terminal_(terminal) {
    if (tcgetattr(terminal_, &original_) != 0) fail("the terminal cannot hide a password");
    termios hidden = original_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
    hidden.c_lflag |= ICANON;
    // No suspending by Ctrl-Z meanwhile: the shell would get a terminal that shows no input.
    hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
    if (tcsetattr(terminal_, TCSAFLUSH, &hidden) != 0) fail("the terminal cannot hide a password");
  }
  ~HiddenInput() { tcsetattr(terminal_, TCSAFLUSH, &original_); }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

 private:
  int terminal_;
  termios original_{};
};

void show(int terminal, const std::string& text) {
  // Best effort: the user sees when the terminal shows nothing.
  [[maybe_unused]] const ssize_t written = write(terminal, text.data(), text.size());
}

Secret askOnTerminal(const std::string& what, const char* variable, const char* option,
                     Signals& signals) {
  const UniqueFd terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal) {
    fail("the " + what + " is missing: there is no terminal to ask on, " + variable +
         " is not set, and " + option + " is not given");
  }
  const HiddenInput hidden(terminal.get());
  show(terminal.get(), "The " + what + ": ");
  try {
    Secret secret = readLine(terminal.get(), what, signals);
    show(terminal.get(), "\n");
    return secret;
  } catch (...) {
    show(terminal.get(), "\n");
    throw;
  }
}

/// False for a descriptor that this program opened itself, such as the lock's: it is close-on-exec,
/// which no inherited descriptor can be.
bool isOfCaller(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

Secret readDescriptor(int fd, const std::string& what, Signals& signals) {
  if (!isOfCaller(fd)) fail("the descriptor for the " + what + " is not open");
  return readLine(fd, what, signals);
}

/// Where one password may come from.
struct Sources {
  std::string what;
  std::optional<int> fd;
  const char* option;
  Secret fromEnvironment;
  const char* variable;
};

Secret obtain(Sources sources, Signals& signals) {
  if (sources.fd) return readDescriptor(*sources.fd, sources.what, signals);
  if (sources.fromEnvironment.isGiven()) return std::move(sources.fromEnvironment);
  return askOnTerminal(sources.what, sources.variable, sources.option, signals);
}

/// Does not ask a person. An empty password counts as none.
Secret obtainIfGiven(Sources sources, Signals& signals) {
  Secret secret = sources.fd ? readDescriptor(*sources.fd, sources.what, signals)
                             : std::move(sources.fromEnvironment);
  return secret.isEmpty() ? Secret() : std::move(secret);
}

std::string accountOf(const Settings& settings) {
  return settings.get(setting::LOGIN) + "@" + settings.get(setting::HOST);
}

/// Closed so that no child inherits the rest of it.
void closeDescriptor(std::optional<int> fd) {
  if (fd && *fd > STDERR_FILENO) close(*fd);
}

Secret takeVariable(const char* name) {
  const char* const value = getenv(name);
  Secret secret = value ? Secret(value) : Secret();
  wipe_env_variable(name);
  return secret;
}

}  // namespace

Passwords takePasswordsFromEnvironment() {
  return {takeVariable(LOGIN_VARIABLE), takeVariable(SUDO_VARIABLE), takeVariable(KEY_VARIABLE)};
}

Passwords obtainPasswords(const Request& request, const Settings& settings, Passwords environment,
                          Signals& signals) {
  const bool isByKey = !identityOf(settings).empty();
  Sources ofLogin{"password of " + accountOf(settings), request.passwordFd, "--password-fd",
                  std::move(environment.login), LOGIN_VARIABLE};
  Secret login =
      isByKey ? obtainIfGiven(std::move(ofLogin), signals) : obtain(std::move(ofLogin), signals);
  // No server accepts an empty password, and sondrel refuses it.
  if (!isByKey && login.isEmpty()) {
    fail("the password of " + accountOf(settings) + " is empty");
  }
  // Read before the password for sudo, which is not always needed.
  Secret key = obtainIfGiven({"passphrase of the key", request.keyPasswordFd, "--key-password-fd",
                              std::move(environment.key), KEY_VARIABLE},
                             signals);
  Secret sudo = settings.isOn(setting::SUDO)
                    ? obtain({"password for sudo of " + accountOf(settings), request.sudoPasswordFd,
                              "--sudo-password-fd", std::move(environment.sudo), SUDO_VARIABLE},
                             signals)
                    : Secret();
  for (const std::optional<int> fd : std::set<std::optional<int>>{
           request.passwordFd, request.sudoPasswordFd, request.keyPasswordFd}) {
    closeDescriptor(fd);
  }
  return {std::move(login), std::move(sudo), std::move(key)};
}

bool askForWhatIsWanted(const std::string& causes, const Settings& settings, Passwords& passwords,
                        Signals& signals) {
  const auto tells = [&](const char* text) { return causes.find(text) != std::string::npos; };
  if (!passwords.login.isGiven() && tells("the server wants a password besides the key")) {
    passwords.login = askOnTerminal("password of " + accountOf(settings), LOGIN_VARIABLE,
                                    "--password-fd", signals);
    return true;
  }
  if (!passwords.key.isGiven() && tells("is protected by a passphrase, and none was given")) {
    passwords.key = askOnTerminal("passphrase of " + identityOf(settings), KEY_VARIABLE,
                                  "--key-password-fd", signals);
    return true;
  }
  return false;
}

}  // namespace migrate
