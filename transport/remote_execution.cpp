#include "transport/remote_execution.h"

#include <chrono>
#include <log4cpp/Category.hh>

#include "commons/log.h"

namespace {

using Clock = std::chrono::steady_clock;

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

constexpr std::size_t COPY_BUFFER_BYTES = 65536;
/// How long a chunk that has begun to come in may take to be complete.
constexpr std::chrono::milliseconds GATHER_LIMIT{100};

}  // namespace

RemoteExecution::RemoteExecution(std::unique_ptr<libssh2pp::Channel> channel, std::ostream& out,
                                 std::ostream& err, bool quietOutput, Ssh::Counter& counter)
    : channel_(std::move(channel)),
      out_(out),
      err_(err),
      quietOutput_(quietOutput),
      counter_(counter),
      buffer_(COPY_BUFFER_BYTES) {}

void RemoteExecution::sendInput(std::istream& in, bool quietInput) {
  IOStreamReadChannel from(in);
  SshChannelWriteChannel to(*channel_, [this] { readTurn(); });
  if (quietInput) {
    pump(from, to);
  } else {
    pump_with_log(from, to);
  }
}

void RemoteExecution::sendEof(const libssh2pp::Session& session) {
  if (channel_->sendEof() < 0) throw Exc<&UnableToSendEof>(HERE) % session.lastError();
}

void RemoteExecution::readTurn() {
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

/// Bulk data is counted and stored chunk by chunk, which costs more than the bytes do:
/// a chunk that is coming in is waited for, but not for long.
void RemoteExecution::gatherChunk() {
  const auto end = Clock::now() + GATHER_LIMIT;
  while (channel_->queuedBytes() < buffer_.size()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0 || !channel_->awaitMore(static_cast<int>(left.count()))) return;
  }
}

/// Reads and logs what there is; 0 for nothing.
int RemoteExecution::readChunk(int stream, const char* logPrefix) {
  const int size = channel_->read(stream, buffer_.data(), buffer_.size());
  if (size > 0 && !quietOutput_) {
    sshLog.debugStream() << logPrefix
                         << memchunk_log{buffer_.data(), static_cast<std::size_t>(size)};
  }
  return size;
}
