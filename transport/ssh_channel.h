#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "commons/exceptions.h"
#include "transport/handle.h"

struct _LIBSSH2_CHANNEL;

DECLARE_ERROR_TAG(SshConnectionFault, "Lost connection with the remote host");

/// The SSH library behind owning objects. The library is used in blocking mode
/// except where this text says otherwise; where it fails because of a signal the
/// call is repeated here.
namespace libssh2pp {

class Connection;

void dtm_libssh2_channel_free(_LIBSSH2_CHANNEL* channel) noexcept;

/// Lifts the time limit of a session's calls when it goes.
class CallDeadlineGuard {
 public:
  explicit CallDeadlineGuard(Connection& connection) : limited_(connection) {}
  ~CallDeadlineGuard();
  CallDeadlineGuard(const CallDeadlineGuard&) = delete;
  CallDeadlineGuard& operator=(const CallDeadlineGuard&) = delete;

 private:
  Connection& limited_;
};

/// One remote command. The order of the bases matters: the handle goes first, under
/// the limit that the destructor sets for it.
class Channel : private CallDeadlineGuard,
                public Handle<_LIBSSH2_CHANNEL, dtm_libssh2_channel_free> {
 public:
  /// The library's blocking flag.
  enum Mode { NON_BLOCKING = 0, BLOCKING = 1 };

  /// Exit status of a command that the server refused to start.
  static constexpr int REFUSED_STATUS = 255;
  /// From here on a status says that something ended the command, or that it was
  /// never started.
  static constexpr int FIRST_SIGNAL_STATUS = 128;

  /// Owns the channel. The connection must outlive it.
  Channel(_LIBSSH2_CHANNEL* channel, Connection& connection);
  /// Frees the channel; waits at most 3 s for the server to agree.
  ~Channel() override;

  /// Starts the command. A server that refuses to is seen later, as a closed channel
  /// with REFUSED_STATUS. Throws SshConnectionFault.
  void startCommand(const std::string& command, Mode mode);

  /// Lets the server send more of the command's output, if the time has come.
  void openWindow();

  /// Waits until the command has output or ends, or the connection is lost,
  /// at most `timeoutMs`; returns at once on a signal. SIGALRM is unblocked here even
  /// when the caller blocks it. Throws SshConnectionFault.
  int poll(int timeoutMs);

  /// Waits, at most `timeoutMs`, for more than what is there to be read already, and lets
  /// the server send it; returns early, and on a signal. False when no more will come.
  /// Throws SshConnectionFault.
  bool awaitMore(int timeoutMs);

  /// True when the command has no more output and all of it was read.
  bool atEof() const;
  /// Bytes of both streams that have arrived and were not read.
  std::size_t queuedBytes() const;
  /// Reads what is there of the stream (0 output, 1 error output), never waiting,
  /// until the buffer is full. Returns the number of bytes; 0 when nothing was there.
  /// Throws SshConnectionFault.
  int read(int stream, char* buffer, std::size_t size);
  /// Drops what has arrived for streams that do not exist, which only a broken or
  /// hostile server sends: it would keep the channel from ever being at its end.
  void dropUnknownStreams();

  /// Sends bytes to the command's standard input; returns how many it took, which
  /// is 0 after a wait, or the library's negative error. A command that has ended
  /// takes everything: its exit status speaks. `onStall` is called when the command
  /// can neither take input nor get rid of its output. Throws SshConnectionFault.
  int write(const char* bytes, std::size_t size, const std::function<void()>& onStall);
  /// Tells the command that its input ends here; 0, or the library's error. Throws
  /// SshConnectionFault.
  int sendEof();

  /// Waits for the end of the command. 128 plus the number for one ended by a
  /// signal, 255 when it has no such number or was never started. Throws
  /// SshConnectionFault when the connection ended first.
  int waitForExitStatus();

 private:
  bool isClosed() const;
  int libraryPoll(unsigned long& events) const;
  std::size_t queueRoom() const;
  bool isIdle() const;
  bool isStalled() const;
  void readBufferedPackets() const;

  Connection& connection_;
  bool refused_ = false;
  bool windowOpened_ = false;
};

}  // namespace libssh2pp
