#include "transport/jump_connection.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <log4cpp/Category.hh>

#include "commons/ExSystemError.h"
#include "commons/forkexec.h"

namespace {

log4cpp::Category& jumpLog = log4cpp::Category::getInstance("k.JumpConnection");

/// How long ssh may take to end after it has closed the connection.
constexpr int END_LIMIT_MS = 5000;
constexpr std::size_t LONGEST_ERROR = 4096;

/// In batch mode, because no person is there to answer questions. The keep-alive messages detect a
/// jump host that has vanished, after two minutes.
ArgList commandOf(const JumpHost& jump, const std::string& host, std::uint16_t port) {
  const bool hasColons = host.find(':') != std::string::npos;
  ArgList line = {
      "ssh", "-o", "BatchMode=yes", "-o", "ServerAliveInterval=30", "-o", "ServerAliveCountMax=4"};
  line.insert(line.end(),
              {"-W", (hasColons ? "[" + host + "]" : host) + ":" + std::to_string(port)});
  if (!jump.login.empty()) line.insert(line.end(), {"-l", jump.login});
  if (jump.port != 0) line.insert(line.end(), {"-p", std::to_string(jump.port)});
  line.insert(line.end(), {"--", jump.host});
  return line;
}

UniqueFd processOf(pid_t child) {
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
}

/// False when the process still runs after END_LIMIT_MS.
bool awaitEnd(const UniqueFd& process) {
  pollfd ended = {process.get(), POLLIN, 0};
  int result;
  do {
    result = poll(&ended, 1, END_LIMIT_MS);
  } while (result < 0 && errno == EINTR);
  return result > 0;
}

int reap(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return status;
}

std::string textIn(const UniqueFd& file) {
  std::array<char, LONGEST_ERROR> text{};
  const ssize_t size = pread(file.get(), text.data(), text.size(), 0);
  return boost::trim_copy(std::string(text.data(), static_cast<std::size_t>(size < 0 ? 0 : size)));
}

}  // namespace

JumpConnection::JumpConnection(const JumpHost& jump, const std::string& host, std::uint16_t port)
    : errors_(memfd_create("errors of ssh", MFD_CLOEXEC)) {
  if (!errors_) throwSystemError("memfd_create", errno);
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throwSystemError("socketpair", errno);
  }
  ours_ = UniqueFd(ends[0]);
  const UniqueFd theirs(ends[1]);
  jumpLog.debug("Connecting to " + host + " through " + jump.host);
  child_ = forkExecvPipes(theirs.get(), theirs.get(), errors_.get(), "ssh",
                          commandOf(jump, host, port), "", {});
}

JumpConnection::~JumpConnection() {
  if (child_ < 0) return;
  const UniqueFd process = processOf(child_);
  // For ssh the end of the connection is enough; what runs in its place may ignore both.
  ours_.close();
  kill(child_, SIGTERM);
  if (!process || !awaitEnd(process)) kill(child_, SIGKILL);
  reap(child_);
}

std::string JumpConnection::failure() {
  if (child_ >= 0) {
    // As long as the child keeps its socket open, the connection is not what failed.
    char byte;
    const ssize_t peeked = recv(ours_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    const bool isThere = peeked > 0 || (peeked < 0 && (errno == EAGAIN || errno == EINTR));
    if (isThere) return "";
    const UniqueFd process = processOf(child_);
    if (!process) throwSystemError("pidfd_open", errno);
    if (!awaitEnd(process)) return "";
    status_ = reap(child_);
    child_ = -1;
  }
  if (WIFEXITED(status_) && WEXITSTATUS(status_) == 0) return "";
  std::string said = textIn(errors_);
  boost::replace_all(said, "\r", "");
  boost::replace_all(said, "\n", "; ");
  return said.empty() ? "ssh has ended without a word" : said;
}
