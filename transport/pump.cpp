#include "transport/pump.h"

#include <log4cpp/Category.hh>
#include <vector>

#include "commons/ProgramTerminatedException.h"
#include "commons/log.h"
#include "transport/ssh_channel.h"

namespace {

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

constexpr std::size_t COPY_BUFFER_BYTES = 65536;

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
