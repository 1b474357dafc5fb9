#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "commons/jump_host.h"
#include "commons/unique_fd.h"

/// A connection through a jump host to a port of another host. It runs `ssh -W` of this host as a
/// child, which carries the bytes over a pair of sockets: no other process can use the connection.
/// The host key of the host behind the jump host is not checked here; the caller's SSH session
/// does.
///
/// The child never asks questions. Its login and the host keys that it accepts are those of ssh's
/// configuration for the account of this process.
class JumpConnection {
 public:
  /// Throws SystemError when there can be no child.
  JumpConnection(const JumpHost& jump, const std::string& host, std::uint16_t port);
  /// Ends the child, which may take a few seconds.
  ~JumpConnection();
  JumpConnection(const JumpConnection&) = delete;
  JumpConnection& operator=(const JumpConnection&) = delete;

  int descriptor() const { return ours_.get(); }
  /// For a caller that got no answer: why there is no connection, in the words of ssh; empty when
  /// there is one. Waits for a child that is about to end.
  std::string failure();

 private:
  UniqueFd ours_;
  /// The standard error of the child.
  UniqueFd errors_;
  pid_t child_ = -1;
  /// The exit status of the child, once it has ended.
  int status_ = 0;
};
