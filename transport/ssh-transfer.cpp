#include "transport/ssh-transfer.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>
#include <vector>

#include "commons/ProgramTerminatedException.h"
#include "commons/collected_text.h"
#include "commons/commons.h"
#include "commons/log.h"
#include "commons/sh_quoting.h"
#include "commons/unbuffered_streambuf.h"

namespace {

using Clock = std::chrono::steady_clock;

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

constexpr std::size_t COPY_BUFFER_BYTES = 65536;
/// How long a chunk that has begun to come in may take to be complete.
constexpr std::chrono::milliseconds GATHER_LIMIT{100};
/// How long the loop stays without looking at its alarm while a command is silent.
constexpr int POLL_LIMIT_MS = 5000;
/// The same where somebody looks on.
constexpr int WATCHED_POLL_LIMIT_MS = 1000;
/// How much a command may say before its input is with it, where that is kept for its reader.
constexpr std::size_t OUTPUT_AHEAD_BYTES = std::size_t{8} << 20;
/// Downloaded files have mode 0644 whatever the mask of this process was.
constexpr mode_t DOWNLOAD_UMASK = 022;

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

void logPump(const char* bytes, int size) {
  sshLog.debugStream() << "remote stdin <- " << memchunk_log{bytes, static_cast<std::size_t>(size)};
}

template <class AfterWrite>
void pumpChunks(IOReadChannel& from, IOWriteChannel& to, AfterWrite afterWrite) {
  std::vector<char> buffer(COPY_BUFFER_BYTES);
  for (;;) {
    const int got = from.read(buffer.data(), static_cast<int>(buffer.size()));
    if (got == 0) return;
    if (got < 0) throw Exc<&StreamRead>(HERE);
    pump_write(to, buffer.data(), got);
    afterWrite(buffer.data(), got);
  }
}

/// One command on its way: its channel, and where its output goes.
class RemoteExecution {
 public:
  RemoteExecution(std::unique_ptr<libssh2pp::Channel> channel, std::ostream& out, std::ostream& err,
                  bool quietOutput, Ssh::Counter& counter)
      : channel_(std::move(channel)),
        out_(out),
        err_(err),
        quietOutput_(quietOutput),
        counter_(counter),
        buffer_(COPY_BUFFER_BYTES) {}

  /// All input goes before any output is read, unless the command fills its output
  /// window first: then both sides would wait for ever.
  void sendInput(std::istream& in, bool quietInput) {
    IOStreamReadChannel from(in);
    SshChannelWriteChannel to(*channel_, [this] { readTurn(); });
    if (quietInput) {
      pump(from, to);
    } else {
      pump_with_log(from, to);
    }
  }

  void sendEof(const libssh2pp::Session& session) {
    if (channel_->sendEof() < 0) throw Exc<&UnableToSendEof>(HERE) % session.lastError();
  }

  /// At most one chunk of each stream, standard output first.
  void readTurn() {
    if (channel_->queuedBytes() == 0) return;
    if (quietOutput_) gatherChunk();
    const int outSize = readChunk(0, "remote stdout -> ");
    if (outSize > 0) {
      counter_(outSize);
      pump_write(out_, buffer_.data(), outSize);
    }
    const int errSize = readChunk(1, "remote stderr -> ");
    if (errSize > 0) pump_write(err_, buffer_.data(), errSize);
    if (outSize == 0 && errSize == 0) channel_->dropUnknownStreams();
  }

  libssh2pp::Channel& channel() { return *channel_; }

 private:
  /// Bulk data is counted and stored chunk by chunk, which costs more than the bytes do:
  /// a chunk that is coming in is waited for, but not for long.
  void gatherChunk() {
    const auto end = Clock::now() + GATHER_LIMIT;
    while (channel_->queuedBytes() < buffer_.size()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0 || !channel_->awaitMore(static_cast<int>(left.count()))) return;
    }
  }

  /// Reads and logs what there is; 0 for nothing.
  int readChunk(int stream, const char* logPrefix) {
    const int size = channel_->read(stream, buffer_.data(), buffer_.size());
    if (size > 0 && !quietOutput_) {
      sshLog.debugStream() << logPrefix
                           << memchunk_log{buffer_.data(), static_cast<std::size_t>(size)};
    }
    return size;
  }

  std::unique_ptr<libssh2pp::Channel> channel_;
  IOStreamWriteChannel out_;
  IOStreamWriteChannel err_;
  bool quietOutput_;
  Ssh::Counter& counter_;
  std::vector<char> buffer_;
};

}  // namespace

int IOStreamReadChannel::read(char* buffer, int size) {
  if (stream_.eof()) return 0;
  stream_.read(buffer, size);
  return static_cast<int>(stream_.gcount());
}

int IOStreamWriteChannel::write(const char* bytes, int size) {
  stream_.write(bytes, size);
  return stream_.fail() ? -1 : size;
}

int SshChannelWriteChannel::write(const char* bytes, int size) {
  return channel_.write(bytes, static_cast<std::size_t>(size), onStall_);
}

void pump_write(IOWriteChannel& to, const char* bytes, int size) {
  checkProgramTerminated();
  for (int done = 0; done < size;) {
    const int written = to.write(bytes + done, size - done);
    if (written < 0) throw Exc<&StreamWrite>(HERE);
    done += written;
  }
}

void pump(IOReadChannel& from, IOWriteChannel& to) {
  pumpChunks(from, to, [](const char*, int) {});
}

void pump_with_log(IOReadChannel& from, IOWriteChannel& to) {
  pumpChunks(from, to, logPump);
}

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
  auto way = jump_ ? std::make_unique<JumpWay>(*jump_, host, port) : nullptr;
  auto socket = jump_ ? nullptr : std::make_unique<Socket>(host, port);
  try {
    // The session, if there is one, uses what carries it: it goes first.
    session_ = std::make_unique<libssh2pp::Session>(
        way ? way->descriptor() : socket->descriptor(), disableEncryption, compatibility,
        libssh2pp::Session::LOGIN_LIMIT, hostKeyCheck.types(), ciphers);
  } catch (const Exc<&UnableToStartSshSession>&) {
    const std::string reason = way ? way->failure() : "";
    if (reason.empty()) throw;
    throw Exc<&ConnectionFault>(HERE) % host %
        ("no way leads through the jump host " + jump_->host + ": " + reason +
         ". It is used by ssh, which must get there without a question, as by \"ssh -o "
         "BatchMode=yes\"");
  }
  way_ = std::move(way);
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
      // What stands behind the end of an archive is nobody's.
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
  if (onlooker_) onlooker_->look();
  channel.poll(onlooker_ ? WATCHED_POLL_LIMIT_MS : POLL_LIMIT_MS);
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
  const UmaskGuard mask(DOWNLOAD_UMASK);
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

std::unique_ptr<RemoteOutput> Ssh::getBatch(const std::string& folder,
                                            const std::vector<std::string>& names,
                                            std::ostream& err) {
  // Nothing in a name means anything to tar behind "./" but a backslash, which it is told.
  const std::string command =
      (boost::format("tar --create --file=- --format=gnu --directory=%1% --null --no-unquote "
                     "--no-recursion --dereference --hard-dereference --files-from=-") %
       sh_quote(folder))
          .str();
  std::string input;
  for (const std::string& name : names) {
    sshLog.debugStream() << "Reading data from the remote file " << folder << "/" << name;
    input.append("./").append(name).push_back('\0');
  }
  std::istringstream in(input);
  return std::make_unique<BatchOutput>(*this, command, in, err);
}

int Ssh::putBatch(std::istream& archive, const std::string& folder, std::string& errorText) {
  sshLog.debug("Writing files to the remote folder " + folder);
  // As `cat >` would: through links, into files that stay the same ones, with new times.
  const std::string command =
      (boost::format("tar --extract --file=- --directory=%1% --overwrite --dereference --touch "
                     "--no-same-owner --no-same-permissions") %
       sh_quote(folder))
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
  if (onlooker_) onlooker_->look();
}
