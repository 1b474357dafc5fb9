#pragma once

#include <cstddef>
#include <istream>
#include <memory>
#include <ostream>
#include <vector>

#include "transport/pump.h"
#include "transport/ssh-transfer.h"
#include "transport/ssh_channel.h"
#include "transport/ssh_session.h"

/// A remote command that is at work: its channel, and where its output goes. For Ssh, whose
/// errors its methods throw.
class RemoteExecution {
 public:
  /// The streams and the counter must outlive the execution.
  RemoteExecution(std::unique_ptr<libssh2pp::Channel> channel, std::ostream& out, std::ostream& err,
                  bool quietOutput, Ssh::Counter& counter);

  /// All input goes before any output is read, unless the command fills its output
  /// window first: then both sides would wait for ever.
  void sendInput(std::istream& in, bool quietInput);
  /// Throws UnableToSendEof.
  void sendEof(const libssh2pp::Session& session);
  /// At most one chunk of each stream, standard output first.
  void readTurn();

  libssh2pp::Channel& channel() { return *channel_; }

 private:
  void gatherChunk();
  int readChunk(int stream, const char* logPrefix);

  std::unique_ptr<libssh2pp::Channel> channel_;
  IOStreamWriteChannel out_;
  IOStreamWriteChannel err_;
  bool quietOutput_;
  Ssh::Counter& counter_;
  std::vector<char> buffer_;
};
