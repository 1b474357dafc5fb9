#include "commons/output_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include "commons/commons.h"
#include "commons/umask_guard.h"
#include "support.h"

namespace {

volatile sig_atomic_t alarms = 0;

struct Range {
  off_t begin;
  off_t size;
};

/// The ranges whose transfer to the disk was started; see below.
std::vector<Range> writtenOut;

/// Everything that arrives from a descriptor, read slowly enough that a pipe fills up.
std::string readAll(int fd) {
  std::string text;
  char block[512];
  for (ssize_t got; (got = read(fd, block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(got));
  }
  return text;
}

}  // namespace

/// Replaces the function of the system, whose effect cannot be observed.
extern "C" int sync_file_range(int /*fd*/, off64_t begin, off64_t size, unsigned int flags) {
  EXPECT_EQ(flags, static_cast<unsigned int>(SYNC_FILE_RANGE_WRITE));
  writtenOut.push_back({begin, size});
  return 0;
}

TEST(OutputFileTest, IsCreatedOrTruncated) {
  const ScopedTempDir dir;
  writeFile(dir / "old", "a long old text");
  ASSERT_EQ(chmod((dir / "old").c_str(), 0600), 0);
  const UmaskGuard mask(027);
  for (const char* name : {"old", "new"}) {
    OutputFile file(dir / name);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(file.path(), dir / name);
    file.stream() << "text " << 42 << '\n';
    EXPECT_TRUE(file.close());
    EXPECT_EQ(readFile(dir / name), "text 42\n");
  }
  EXPECT_EQ(ownerAndMode(dir / "old"), "0:0 600");
  EXPECT_EQ(ownerAndMode(dir / "new"), "0:0 640");
}

TEST(OutputFileTest, WritesAtOnce) {
  const ScopedTempDir dir;
  OutputFile file(dir / "file");
  file.stream().put('a');
  EXPECT_EQ(readFile(dir / "file"), "a");
  file.stream() << std::string(100000, 'b');
  EXPECT_EQ(readFile(dir / "file").size(), 100001u);
}

TEST(OutputFileTest, CountsWhatWasWrittenFromThereOn) {
  const ScopedTempDir dir;
  OutputFile file(dir / "file");
  file.stream() << "before";
  Md5Sum sum;
  file.setSum(&sum);
  file.stream() << "counted" << ' ' << 42;
  file.setSum(nullptr);
  file.stream() << "after";
  EXPECT_EQ(sum.size(), 10);
  EXPECT_EQ(sum.finish(), countMd5Sum(std::string("counted 42")));
}

TEST(OutputFileTest, DoesNotCountWhatCouldNotBeWritten) {
  OutputFile file("/dev/full");
  Md5Sum sum;
  file.setSum(&sum);
  file.stream() << "text";
  EXPECT_EQ(sum.size(), 0);
}

TEST(OutputFileTest, CarriesEveryByteValue) {
  const ScopedTempDir dir;
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  OutputFile file(dir / "file");
  file.stream().write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  for (const char byte : bytes) file.stream().put(byte);
  EXPECT_TRUE(file.close());
  EXPECT_EQ(readFile(dir / "file"), bytes + bytes);
}

TEST(OutputFileTest, ThatCannotBeOpenedTakesNothing) {
  for (const char* path : {"/mnt/missing/file", "/mnt"}) {
    SCOPED_TRACE(path);
    OutputFile file(path);
    EXPECT_FALSE(file.isOpen());
    EXPECT_FALSE(file.stream() << "text");
    EXPECT_EQ(file.errorText(),
              path == std::string("/mnt") ? "Is a directory" : "No such file or directory");
    EXPECT_FALSE(file.close());
    EXPECT_FALSE(OutputFile(path).syncAndClose());
  }
}

TEST(OutputFileTest, SeesAFullDiskAtTheWriteThatHitsIt) {
  const ScopedTempDir dir;
  const ScopedTmpfs fileSystem(dir.path(), 65536);
  for (const std::string& path : {dir / "file", std::string("/dev/full")}) {
    SCOPED_TRACE(path);
    OutputFile file(path);
    EXPECT_FALSE(file.stream() << std::string(100000, 'x'));
    EXPECT_FALSE(file.close());
    EXPECT_EQ(file.errorText(), "No space left on device");

    OutputFile synced(path);
    synced.stream() << std::string(100000, 'x');
    EXPECT_FALSE(synced.syncAndClose());
    EXPECT_EQ(synced.errorText(), "No space left on device");
  }
}

TEST(OutputFileTest, ContinuesAShortWriteAndSeesTheLimitBehindIt) {
  const ScopedTempDir dir;
  inChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {50000, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    OutputFile file(dir / "file");
    EXPECT_FALSE(file.stream() << std::string(60000, 'x'));
    EXPECT_FALSE(file.close());
    EXPECT_EQ(file.errorText(), "File too large");
  });
  EXPECT_EQ(readFile(dir / "file").size(), 50000u);
}

TEST(OutputFileTest, SyncsItselfAndItsDirectory) {
  const ScopedTempDir dir;
  UniqueFd directory(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueFd fd(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  OutputFile file(dir / "file", std::move(fd), std::move(directory));
  file.stream() << "text";
  EXPECT_TRUE(file.syncAndClose());
  EXPECT_EQ(readFile(dir / "file"), "text");
}

TEST(OutputFileTest, NeedsNoDiskBehindIt) {
  OutputFile file("/dev/null");
  file.stream() << "text";
  EXPECT_TRUE(file.syncAndClose());
}

TEST(OutputFileTest, FailsWhenItsDirectoryCannotBeSynced) {
  const ScopedTempDir dir;
  UniqueFd fd(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  // A descriptor that can be closed but not synced.
  UniqueFd directory(open(dir.path().c_str(), O_PATH | O_CLOEXEC));
  OutputFile file(dir / "file", std::move(fd), std::move(directory));
  EXPECT_FALSE(file.syncAndClose());
  EXPECT_EQ(file.errorText(), "Bad file descriptor");
}

TEST(OutputFileTest, ReportsAnErrorOfClosing) {
  const ScopedTempDir dir;
  OutputFile file(dir / "file");
  const int fd = open("/dev/null", O_RDONLY);
  // Closes the descriptor without its knowledge. That comes closest to a disk that loses data at
  // close.
  close(fd - 1);
  EXPECT_FALSE(file.close());
  EXPECT_EQ(file.errorText(), "Bad file descriptor");
  close(fd);
}

TEST(OutputFileTest, ClosesItsDescriptorWhenItIsDestroyed) {
  const ScopedTempDir dir;
  const std::size_t before = entriesOf("/proc/self/fd").size();
  { OutputFile file(dir / "file"); }
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

TEST(FdStreamBufTest, RetriesInterruptedWrites) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  UniqueFd writeEnd(ends[1]);
  struct sigaction action {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  struct sigaction oldAction;
  ASSERT_EQ(sigaction(SIGALRM, &action, &oldAction), 0);

  const std::string text(3000000, 'x');
  std::string received;
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  // The reader inherits the mask, so all signals go to the writer.
  pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
  std::thread reader([&] { received = readAll(ends[0]); });
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  const itimerval often = {{0, 500}, {0, 500}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
  FdStreamBuf buffer(writeEnd.get());
  const std::streamsize written =
      buffer.sputn(text.data(), static_cast<std::streamsize>(text.size()));
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  writeEnd.close();
  reader.join();
  close(ends[0]);
  sigaction(SIGALRM, &oldAction, nullptr);

  EXPECT_EQ(written, static_cast<std::streamsize>(text.size()));
  EXPECT_EQ(received, text);
  EXPECT_EQ(buffer.error(), 0);
  EXPECT_GT(alarms, 0);
}

TEST(FdStreamBufTest, HasContentWrittenOutWhileMoreComesIn) {
  constexpr off_t MOST_PENDING = 8 << 20;
  const ScopedTempDir dir;
  const UniqueFd fd(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::string chunk(65536, 'x');
  writtenOut.clear();
  for (const auto kind : {FdStreamBuf::PLAIN, FdStreamBuf::CONTENT}) {
    EXPECT_TRUE(writtenOut.empty());
    FdStreamBuf buffer(fd.get(), kind);
    for (int i = 0; i < 400; ++i) {
      ASSERT_EQ(buffer.sputn(chunk.data(), 65536), 65536);
    }
  }
  off_t end = 0;
  for (const Range& range : writtenOut) {
    EXPECT_EQ(range.begin, end);
    end += range.size;
  }
  EXPECT_GT(end, 400 * 65536 - MOST_PENDING);
  EXPECT_LE(end, 400 * 65536);
}

TEST(FdStreamBufTest, KeepsTheFirstErrorAndLeavesTheDescriptorOpen) {
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  {
    FdStreamBuf buffer(full.get());
    EXPECT_EQ(buffer.sputn("text", 4), 0);
    EXPECT_EQ(buffer.sputc('x'), std::char_traits<char>::eof());
    EXPECT_EQ(buffer.error(), ENOSPC);
  }
  EXPECT_GE(fcntl(full.get(), F_GETFD), 0);
}

TEST(OutputFileTest, WritesAndSumsALargeFileBehind) {
  const ScopedTempDir dir;
  OutputFile file(dir / "file");
  Md5Sum sum;
  file.setSum(&sum);
  file.writeBehind();
  const std::string bytes = countMd5Sum(std::string("some")) + std::string(5 << 20, 'x') + "end";
  for (std::size_t done = 0; done < bytes.size(); done += 65536) {
    const std::string chunk = bytes.substr(done, 65536);
    ASSERT_TRUE(file.stream().write(chunk.data(), static_cast<std::streamsize>(chunk.size())));
  }
  EXPECT_TRUE(file.stream().flush());
  EXPECT_TRUE(readFile(dir / "file") == bytes);
  EXPECT_EQ(sum.finish(), countMd5Sum(bytes));
  EXPECT_TRUE(file.syncAndClose());
}

TEST(OutputFileTest, SeesAFullDiskThatIsHitBehind) {
  constexpr std::size_t ROOM = 2 << 20;
  const ScopedTempDir dir;
  const ScopedTmpfs fileSystem(dir.path(), ROOM);
  const auto fill = [&](OutputFile& file, std::size_t size) {
    file.writeBehind();
    const std::string chunk(65536, 'x');
    for (std::size_t done = 0; done < size; done += chunk.size()) file.stream() << chunk;
  };
  {
    // The error may show only at the flush, after all bytes were passed on.
    OutputFile file(dir / "flushed");
    fill(file, ROOM + 65536);
    EXPECT_FALSE(file.stream().flush());
    EXPECT_EQ(file.errorText(), "No space left on device");
    EXPECT_FALSE(file.syncAndClose());
  }
  for (const bool isSynced : {false, true}) {
    OutputFile file(dir / "flushed");
    fill(file, ROOM + 65536);
    EXPECT_FALSE(isSynced ? file.syncAndClose() : file.close());
    EXPECT_EQ(file.errorText(), "No space left on device");
  }
  OutputFile file(dir / "flushed");
  fill(file, 10 * ROOM);
  EXPECT_FALSE(file.stream());
  EXPECT_EQ(readFile(dir / "flushed").size(), ROOM);
}

TEST(OutputFileTest, IsWrittenAsFarAsItCameWhenItIsDestroyed) {
  const ScopedTempDir dir;
  const std::string bytes(3 << 20, 'x');
  {
    OutputFile file(dir / "file");
    file.writeBehind();
    for (int i = 0; i < 3; ++i) file.stream() << bytes.substr(0, 1 << 20);
  }
  EXPECT_TRUE(readFile(dir / "file") == bytes);
}

TEST(SyncDirectoryTest, ForgivesAFileSystemThatCannotSyncDirectoriesOnly) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd readEnd(ends[0]);
  const UniqueFd writeEnd(ends[1]);
  EXPECT_TRUE(syncDirectory(writeEnd.get()));
  EXPECT_FALSE(syncDirectory(-1));
  EXPECT_EQ(errno, EBADF);
}
