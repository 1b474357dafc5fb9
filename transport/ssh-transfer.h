#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "commons/jump_host.h"
#include "commons/output_file.h"
#include "transport/host_key_check.h"
#include "transport/jump_connection.h"
#include "transport/pump.h"
#include "transport/socket.h"
#include "transport/ssh_session.h"

DECLARE_ERROR_TAG(UnableToSendEof, "Unable to send EOF to SSH channel: %1%");
DECLARE_ERROR_TAG(
    SshInvalidCredentials,
    "Unable to connect to host %1%: you have specified incorrect username or password");
DECLARE_ERROR_TAG(SshIdentityRejected, "Unable to connect to host %1%: %2%");
/// Kinds of failure that some transports can tell apart. This one reports both by
/// the exit status of the command; callers handle both.
DECLARE_ERROR_TAG(SshCommandNotFound, "Command was not found on the remote host");
DECLARE_ERROR_TAG(SshUnknown, "Unknown SSH error");

/// Called once per turn while a remote command runs.
class Alarm {
 public:
  virtual ~Alarm() = default;
  virtual void doAlarm() = 0;
};

/// Called once per turn while a remote command runs, at least once a second, and during
/// long local work.
class ProgressObserver {
 public:
  virtual ~ProgressObserver() = default;
  virtual void tick() = 0;
};

/// The standard output of a running remote command, for a caller that reads it part by part. When
/// it is destroyed early, the rest of the output is lost.
class RemoteOutput {
 public:
  RemoteOutput() = default;
  virtual ~RemoteOutput() = default;
  RemoteOutput(const RemoteOutput&) = delete;
  RemoteOutput& operator=(const RemoteOutput&) = delete;

  /// The next bytes, valid until the next call; none at the end. Throws what Ssh::exec throws.
  virtual std::string_view next() = 0;
  /// The exit status of the command; waits for its end, and drops what it says until then. Throws
  /// the same.
  virtual int status() = 0;
};

/// The one SSH connection of a run: runs commands on the source host and copies
/// files, by `cat`, or several at once by `tar`, in constant memory.
///
/// `exec`, `get` and `put` return the exit status of the remote command and do not
/// judge it. They throw InvalidHandle, StreamRead, StreamWrite, UnableToSendEof,
/// SshConnectionFault and MigrationTerminatedException.
class Ssh {
 public:
  /// Told the size of each chunk of a command's standard output.
  class Counter {
   public:
    virtual ~Counter() = default;
    virtual void operator()(int bytes) = 0;
  };
  class NullCounter : public Counter {
   public:
    void operator()(int /*bytes*/) override {}
  };
  static NullCounter null_counter;

  /// Connects, judges the server's key by the rules, and logs in: by the identity first, if one
  /// is given, else by the password only. Throws the errors of Socket,
  /// UnableToStartSshSession, SshHostKeyRejected, InvalidHandle, SshInvalidCredentials;
  /// SshIdentityRejected in place of that one when there is an identity, and, before it
  /// connects, for a key file that cannot be used. With `jump` the connection leads through that
  /// host, to which nothing of the rest applies, and ConnectionFault says why there is none.
  Ssh(const std::string& host, const std::string& login, const std::string& password,
      bool disableEncryption, std::uint16_t port, const HostKeyRules& hostKeyRules = {},
      const LoginIdentity& identity = {}, std::optional<JumpHost> jump = std::nullopt);

  /// Runs a command with `in` as its standard input. Quiet streams stay out of the
  /// debug log.
  int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
           bool quietOutput, bool quietInput, Counter& counter);
  /// The same without input.
  int exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
           Counter& counter);

  /// Downloads. A local file that cannot be opened fails with the first byte that
  /// should go into it, so an empty remote file is no failure there.
  int get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter);
  int get(std::ostream& out, const std::string& remotePath);
  int get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
          Counter& counter);
  int get(const std::string& localPath, const std::string& remotePath);
  /// Into a file that the caller has opened, and closes.
  int get(OutputFile& localFile, std::ostream& err, const std::string& remotePath,
          Counter& counter);

  /// Downloads several files below the remote `directory` as one tar archive, in which each has its
  /// name behind "./". The names, at most 64 KiB of them, must not hold a zero byte; links are
  /// followed. `err` must outlive what is returned, and so must the connection.
  std::unique_ptr<RemoteOutput> getBatch(const std::string& directory,
                                         const std::vector<std::string>& names, std::ostream& err);

  /// Uploads the files of a tar archive into the remote `directory`, over those that are there, as
  /// the login user and with what the umask leaves of their modes.
  int putBatch(std::istream& archive, const std::string& directory, std::string& errorText);

  /// Uploads. A local file that cannot be read becomes an empty remote file.
  int put(std::istream& in, const std::string& remotePath);
  int put(const std::string& localPath, const std::string& remotePath);
  /// The same; what the remote side wrote to its error output goes to `errorText`.
  int put(const std::string& localPath, const std::string& remotePath, std::string& errorText);

  /// Not owned; null for none.
  void setAlarm(Alarm* alarm) { alarm_ = alarm; }

  /// Not owned; null for none.
  void setProgressObserver(ProgressObserver* observer) { observer_ = observer; }

  /// Sends a keep-alive message and a tick to the observer, during long local work.
  void keepAlive();

 private:
  void connect(const std::string& host, std::uint16_t port, bool disableEncryption,
               bool compatibility, const HostKeyCheck& hostKeyCheck);
  void startSession(const std::string& host, std::uint16_t port, bool disableEncryption,
                    bool compatibility, const HostKeyCheck& hostKeyCheck,
                    libssh2pp::Session::Ciphers ciphers);
  void logIn(const std::string& login, const std::string& password, const LoginIdentity& identity,
             const PrivateKey* key);
  int put(std::istream& in, const std::string& remotePath, std::string& errorText);
  int upload(std::istream& in, const std::string& command, std::string& errorText);
  /// Handles the alarm and the observer, then waits for a while.
  void waitForOutput(libssh2pp::Channel& channel);

  class BatchOutput;

  std::optional<JumpHost> jump_;
  /// One of the two carries the session.
  std::unique_ptr<Socket> socket_;
  std::unique_ptr<JumpConnection> jumpConnection_;
  std::unique_ptr<libssh2pp::Session> session_;
  Alarm* alarm_ = nullptr;
  ProgressObserver* observer_ = nullptr;
};
