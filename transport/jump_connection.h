#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "commons/jump_host.h"
#include "commons/unique_fd.h"

/// A connection to a port of another host that leads through a jump host: by the `ssh` of this
/// host, which is a child of this process and carries the bytes by a pair of sockets, so that
/// nobody else can use the way. Whom it reaches it does not judge: that is for who speaks by it.
///
/// The child asks nothing. How it logs in there, and which host keys it takes, is what the
/// configuration of ssh says for the account of this process.
class JumpConnection {
 public:
  /// Throws SystemError when there can be no child.
  JumpConnection(const JumpHost& jump, const std::string& host, std::uint16_t port);
  /// Ends the child.
  ~JumpConnection();
  JumpConnection(const JumpConnection&) = delete;
  JumpConnection& operator=(const JumpConnection&) = delete;

  int descriptor() const { return ours_.get(); }
  /// To be asked when nobody has answered on the other side: why there is no way, in the words of
  /// ssh; empty when there is one. Waits for a child that is about to end.
  std::string failure();

 private:
  UniqueFd ours_;
  /// What the child says on its standard error.
  UniqueFd errors_;
  pid_t child_ = -1;
  /// Of the child, once it has ended.
  int status_ = 0;
};
