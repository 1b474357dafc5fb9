#include "transport/ssh-transfer.h"

#include <cstdlib>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/collected_text.h"
#include "commons/sh_quoting.h"
#include "commons/umask_guard.h"
#include "commons/unbuffered_streambuf.h"
#include "transport/remote_execution.h"

namespace {

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

/// How long the loop stays without looking at its alarm while a command is silent.
constexpr int POLL_LIMIT_MS = 5000;
/// The same where a progress observer wants a tick each second.
constexpr int WATCHED_POLL_LIMIT_MS = 1000;
/// How much a command may say before its input is with it, where that is kept for its reader.
constexpr std::size_t OUTPUT_AHEAD_BYTES = std::size_t{8} << 20;

/// Swallows everything. A stream without a buffer would count as failed.
class NullStreamBuf : public UnbufferedStreamBuf {
 protected:
  std::streamsize xsputn(const char* /*bytes*/, std::streamsize size) override { return size; }
};

class NullStream : public std::ostream {
 public:
  NullStream() : std::ostream(nullptr) { rdbuf(&buffer_); }

 private:
  NullStreamBuf buffer_;
};

/// The file that the identity names; null for the agent, which must be named, too. Throws
/// IdentityError.
std::unique_ptr<const PrivateKey> loadKey(const LoginIdentity& identity) {
  if (!identity.isGiven()) return nullptr;
  if (identity.isAgent()) {
    if (!std::getenv("SSH_AUTH_SOCK")) throw IdentityError("SSH_AUTH_SOCK names no agent");
    return nullptr;
  }
  auto key = std::make_unique<const PrivateKey>(identity.source);
  if (key->isEncrypted() && identity.passphrase.empty()) {
    throw IdentityError("the key file " + key->path() +
                        " is protected by a passphrase, and none was given");
  }
  return key;
}

Ssh::Counter& nullCounter() {
  static Ssh::NullCounter counter;
  return counter;
}

}  // namespace

Ssh::NullCounter Ssh::null_counter;

Ssh::Ssh(const std::string& host, const std::string& login, const std::string& password,
         bool disableEncryption, std::uint16_t port, const HostKeyRules& hostKeyRules,
         const LoginIdentity& identity, std::optional<JumpHost> jump)
    : jump_(std::move(jump)) {
  HostKeyCheck hostKeyCheck(hostKeyRules, host, port);
  try {
    const std::unique_ptr<const PrivateKey> key = loadKey(identity);
    try {
      connect(host, port, disableEncryption, false, hostKeyCheck);
    } catch (const Exc<&UnableToStartSshSession>&) {
      sshLog.debug(std::string("Attempt to start SSH session in a 'compatibility' mode"));
      connect(host, port, disableEncryption, true, hostKeyCheck);
    }
    hostKeyCheck.check(session_->hostKey());
    logIn(login, password, identity, key.get());
  } catch (const Exc<&SshAuthorizationFailed>&) {
    throw Exc<&SshInvalidCredentials>(HERE) % host;
  } catch (const IdentityError& e) {
    throw Exc<&SshIdentityRejected>(HERE) % host % e.what();
  }
}

void Ssh::logIn(const std::string& login, const std::string& password,
                const LoginIdentity& identity, const PrivateKey* key) {
  if (identity.isGiven()) {
    session_->authorize(login, password, identity, key);
  } else {
    session_->authorize(login, password);
  }
}

void Ssh::connect(const std::string& host, std::uint16_t port, bool disableEncryption,
                  bool compatibility, const HostKeyCheck& hostKeyCheck) {
  try {
    startSession(host, port, disableEncryption, compatibility, hostKeyCheck,
                 libssh2pp::Session::FASTEST_FIRST);
  } catch (const libssh2pp::MixedCipherPair& e) {
    sshLog.debug(std::string(e.what()) + ": AES-GCM is not offered");
    startSession(host, port, disableEncryption, compatibility, hostKeyCheck,
                 libssh2pp::Session::WITHOUT_GCM);
  }
}

void Ssh::startSession(const std::string& host, std::uint16_t port, bool disableEncryption,
                       bool compatibility, const HostKeyCheck& hostKeyCheck,
                       libssh2pp::Session::Ciphers ciphers) {
  auto jumped = jump_ ? std::make_unique<JumpConnection>(*jump_, host, port) : nullptr;
  auto socket = jump_ ? nullptr : std::make_unique<Socket>(host, port);
  try {
    // The session, if there is one, uses what carries it: it goes first.
    session_ = std::make_unique<libssh2pp::Session>(
        jumped ? jumped->descriptor() : socket->descriptor(), disableEncryption, compatibility,
        libssh2pp::Session::LOGIN_LIMIT, hostKeyCheck.types(), ciphers);
  } catch (const Exc<&UnableToStartSshSession>&) {
    const std::string reason = jumped ? jumped->failure() : "";
    if (reason.empty()) throw;
    throw Exc<&ConnectionFault>(HERE) % host %
        ("no way leads through the jump host " + jump_->host + ": " + reason +
         ". It is used by ssh, which must get there without a question, as by \"ssh -o "
         "BatchMode=yes\"");
  }
  if (jumped) session_->keepAliveInWaits();
  jumpConnection_ = std::move(jumped);
  socket_ = std::move(socket);
}

/// One command whose output waits here for its reader, a chunk of it at a time.
class Ssh::BatchOutput : public RemoteOutput {
 public:
  BatchOutput(Ssh& ssh, const std::string& command, std::istream& in, std::ostream& err)
      : ssh_(ssh),
        buffer_(pending_),
        out_(&buffer_),
        execution_(ssh.session_->openExecChannel(command, libssh2pp::Channel::BLOCKING), out_, err,
                   true, null_counter) {
    sshLog.debug("Executing " + command + " on the remote host");
    execution_.sendInput(in, true);
    execution_.sendEof(*ssh.session_);
  }

  std::string_view next() override {
    given_.clear();
    // What came while the input was sent is first.
    while (pending_.empty() && !execution_.channel().atEof()) {
      ssh_.waitForOutput(execution_.channel());
      execution_.readTurn();
    }
    given_.swap(pending_);
    return given_;
  }

  int status() override {
    while (!next().empty()) {
      // The bytes behind the end of an archive have no reader.
    }
    const int status = execution_.channel().waitForExitStatus();
    sshLog.debug("Execution finished with return code " + std::to_string(status));
    return status;
  }

 private:
  /// Keeps a chunk, or what a command says that does not wait for its input; not without end.
  class PendingBuf : public UnbufferedStreamBuf {
   public:
    explicit PendingBuf(std::string& pending) : pending_(pending) {}

   protected:
    std::streamsize xsputn(const char* bytes, std::streamsize size) override {
      const auto count = static_cast<std::size_t>(size);
      if (count > OUTPUT_AHEAD_BYTES - pending_.size()) return 0;
      pending_.append(bytes, count);
      return size;
    }

   private:
    std::string& pending_;
  };

  Ssh& ssh_;
  std::string pending_;
  std::string given_;
  PendingBuf buffer_;
  std::ostream out_;
  RemoteExecution execution_;
};

void Ssh::waitForOutput(libssh2pp::Channel& channel) {
  if (alarm_) alarm_->doAlarm();
  if (observer_) observer_->tick();
  channel.poll(observer_ ? WATCHED_POLL_LIMIT_MS : POLL_LIMIT_MS);
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
              bool quietOutput, bool quietInput, Counter& counter) {
  sshLog.debug("Executing " + command + " on the remote host");
  int status;
  {
    RemoteExecution execution(session_->openExecChannel(command, libssh2pp::Channel::BLOCKING), out,
                              err, quietOutput, counter);
    execution.sendInput(in, quietInput);
    execution.sendEof(*session_);
    while (!execution.channel().atEof()) {
      waitForOutput(execution.channel());
      execution.readTurn();
    }
    status = execution.channel().waitForExitStatus();
    sshLog.debug("Execution finished with return code " + std::to_string(status));
  }
  return status;
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
  std::istringstream noInput;
  return exec(command, noInput, out, err, quietOutput, false, counter);
}

int Ssh::get(std::ostream& out, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
  sshLog.debug("Reading data from the remote file " + remotePath);
  const std::string command = (boost::format("cat %1%") % sh_quote(remotePath)).str();
  std::istringstream noInput;
  return exec(command, noInput, out, err, true, true, counter);
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
  NullStream noErrors;
  return get(out, noErrors, remotePath, nullCounter());
}

int Ssh::get(OutputFile& localFile, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
  sshLog.debug("Reading data to the file " + localFile.path());
  std::ostream& stream = localFile.stream();
  const int status = get(stream, err, remotePath, counter);
  // What is written behind may have failed. A file that could not be opened takes nothing.
  if (stream && !stream.flush()) throw Exc<&StreamWrite>(HERE);
  return status;
}

int Ssh::get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
  const UmaskGuard mask(READABLE_BY_ALL_UMASK);
  OutputFile file(localPath);
  const bool opened = file.isOpen();
  const int status = get(file, err, remotePath, counter);
  if (opened && !file.close()) throw Exc<&StreamWrite>(HERE);
  return status;
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
  NullStream noErrors;
  return get(localPath, noErrors, remotePath, nullCounter());
}

int Ssh::put(std::istream& in, const std::string& remotePath, std::string& errorText) {
  sshLog.debug("Writing data to the remote file " + remotePath);
  return upload(in, (boost::format("cat > %1%") % sh_quote(remotePath)).str(), errorText);
}

int Ssh::upload(std::istream& in, const std::string& command, std::string& errorText) {
  CollectedText out;
  CollectedText err;
  const int status = exec(command, in, out, err, true, true, null_counter);
  errorText = err.str();
  return status;
}

std::unique_ptr<RemoteOutput> Ssh::getBatch(const std::string& directory,
                                            const std::vector<std::string>& names,
                                            std::ostream& err) {
  // Nothing in a name means anything to tar behind "./" but a backslash, which it is told.
  const std::string command =
      (boost::format("tar --create --file=- --format=gnu --directory=%1% --null --no-unquote "
                     "--no-recursion --dereference --hard-dereference --files-from=-") %
       sh_quote(directory))
          .str();
  std::string input;
  for (const std::string& name : names) {
    sshLog.debugStream() << "Reading data from the remote file " << directory << "/" << name;
    input.append("./").append(name).push_back('\0');
  }
  std::istringstream in(input);
  return std::make_unique<BatchOutput>(*this, command, in, err);
}

int Ssh::putBatch(std::istream& archive, const std::string& directory, std::string& errorText) {
  sshLog.debug("Writing files to the remote folder " + directory);
  // As `cat >` would: through links, into files that stay the same ones, with new times.
  const std::string command =
      (boost::format("tar --extract --file=- --directory=%1% --overwrite --dereference --touch "
                     "--no-same-owner --no-same-permissions") %
       sh_quote(directory))
          .str();
  return upload(archive, command, errorText);
}

int Ssh::put(std::istream& in, const std::string& remotePath) {
  std::string ignored;
  return put(in, remotePath, ignored);
}

int Ssh::put(const std::string& localPath, const std::string& remotePath, std::string& errorText) {
  sshLog.debug("Writing file " + localPath + " to the remote host");
  std::ifstream file(localPath, std::ios::binary);
  return put(file, remotePath, errorText);
}

int Ssh::put(const std::string& localPath, const std::string& remotePath) {
  std::string ignored;
  return put(localPath, remotePath, ignored);
}

void Ssh::keepAlive() {
  session_->keepAlive();
  if (observer_) observer_->tick();
}
