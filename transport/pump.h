#pragma once

#include <functional>
#include <istream>
#include <ostream>

#include "commons/exceptions.h"

namespace libssh2pp {
class Channel;
}  // namespace libssh2pp

DECLARE_ERROR_TAG(StreamWrite, "Cannot write data to the stream");

/// Where a pump reads from.
class IOReadChannel {
 public:
  virtual ~IOReadChannel() = default;
  /// Bytes read, 0 at the end, -1 on failure.
  virtual int read(char* buffer, int size) = 0;
};

/// Where a pump writes to.
class IOWriteChannel {
 public:
  virtual ~IOWriteChannel() = default;
  /// Bytes written, 0 when it must be tried again, negative on failure.
  virtual int write(const char* bytes, int size) = 0;
};

class IOStreamReadChannel : public IOReadChannel {
 public:
  /// The stream must outlive the channel.
  explicit IOStreamReadChannel(std::istream& stream) : stream_(stream) {}
  int read(char* buffer, int size) override;

 private:
  std::istream& stream_;
};

class IOStreamWriteChannel : public IOWriteChannel {
 public:
  /// The stream must outlive the channel.
  explicit IOStreamWriteChannel(std::ostream& stream) : stream_(stream) {}
  int write(const char* bytes, int size) override;

 private:
  std::ostream& stream_;
};

/// The standard input of a remote command.
class SshChannelWriteChannel : public IOWriteChannel {
 public:
  /// `onStall` as for libssh2pp::Channel::write. The channel must outlive this.
  SshChannelWriteChannel(libssh2pp::Channel& channel, std::function<void()> onStall)
      : channel_(channel), onStall_(std::move(onStall)) {}
  int write(const char* bytes, int size) override;

 private:
  libssh2pp::Channel& channel_;
  std::function<void()> onStall_;
};

/// Writes all of the bytes; nothing for a count below 1. First of all asks whether
/// the run is to stop. Throws StreamWrite, MigrationTerminatedException.
void pump_write(IOWriteChannel& to, const char* bytes, int size);
/// Copies everything. Throws StreamRead, and what pump_write throws.
void pump(IOReadChannel& from, IOWriteChannel& to);
/// The same, with each chunk in the debug log.
void pump_with_log(IOReadChannel& from, IOWriteChannel& to);
