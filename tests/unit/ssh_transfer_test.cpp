#include "transport/ssh-transfer.h"

#include <fstream>
#include <sstream>

#include "commons/ProgramTerminatedException.h"
#include "support.h"

namespace {

/// Takes at most `portion` bytes at a time, and none at every second call.
class SlowWriteChannel : public IOWriteChannel {
 public:
  explicit SlowWriteChannel(int portion) : portion_(portion) {}
  int write(const char* bytes, int size) override {
    ++calls;
    if (calls % 2 == 0) return 0;
    const int taken = std::min(size, portion_);
    received.append(bytes, static_cast<std::size_t>(taken));
    return taken;
  }

  std::string received;
  int calls = 0;

 private:
  int portion_;
};

class FailingWriteChannel : public IOWriteChannel {
 public:
  explicit FailingWriteChannel(int result) : result_(result) {}
  int write(const char* /*bytes*/, int /*size*/) override { return result_; }

 private:
  int result_;
};

class FailingReadChannel : public IOReadChannel {
 public:
  int read(char* /*buffer*/, int /*size*/) override { return -1; }
};

/// Returns the pieces one by one, and records how many bytes were requested.
class PiecewiseReadChannel : public IOReadChannel {
 public:
  explicit PiecewiseReadChannel(std::vector<std::string> pieces) : pieces_(std::move(pieces)) {}
  int read(char* buffer, int size) override {
    askedFor = size;
    if (next_ == pieces_.size()) return 0;
    const std::string& piece = pieces_[next_++];
    std::copy(piece.begin(), piece.end(), buffer);
    return static_cast<int>(piece.size());
  }

  int askedFor = 0;

 private:
  std::vector<std::string> pieces_;
  std::size_t next_ = 0;
};

void writeNothing(int size) {
  SlowWriteChannel to(1);
  pump_write(to, "unused", size);
  EXPECT_EQ(to.calls, 0);
}

}  // namespace

TEST(PumpWriteTest, GoesOnAfterShortWritesAndAfterNone) {
  SlowWriteChannel to(3);
  pump_write(to, "0123456789", 10);
  EXPECT_EQ(to.received, "0123456789");
}

TEST(PumpWriteTest, WritesNothingForAnEmptyChunkOrALibrarysError) {
  for (const int size : {0, -1, -37}) {
    SCOPED_TRACE(size);
    writeNothing(size);
  }
}

TEST(PumpWriteTest, FailsForEveryNegativeResult) {
  for (const int result : {-1, -7, -9, -13, -43}) {
    SCOPED_TRACE(result);
    EXPECT_EQ(whatOf<Exc<&StreamWrite>>([&] {
                FailingWriteChannel to(result);
                pump_write(to, "x", 1);
              }),
              "Cannot write data to the stream");
  }
}

TEST(PumpWriteTest, StopsBeforeAnyChunkEvenAnEmptyOneOnceTheRunIsToStop) {
  IN_FRESH_PROCESS();
  writeNothing(0);
  terminateProgram();
  terminateProgram();
  for (const int size : {0, -1, 1}) {
    SCOPED_TRACE(size);
    EXPECT_EQ(whatOf<MigrationTerminatedException>([&] { writeNothing(size); }),
              "Migration has been terminated");
  }
}

TEST(PumpTest, CopiesEverythingInChunksOfNoMoreThan64KiB) {
  PiecewiseReadChannel from({"one ", "two ", std::string(65536, 'x')});
  SlowWriteChannel to(1000);
  pump(from, to);
  EXPECT_EQ(to.received, "one two " + std::string(65536, 'x'));
  EXPECT_EQ(from.askedFor, 65536);
}

TEST(PumpTest, FailsWhenReadingFails) {
  FailingReadChannel from;
  SlowWriteChannel to(1);
  EXPECT_EQ(whatOf<Exc<&StreamRead>>([&] { pump(from, to); }), "Cannot read data from the stream");
  EXPECT_EQ(whatOf<Exc<&StreamRead>>([&] { pump_with_log(from, to); }),
            "Cannot read data from the stream");
}

TEST(PumpTest, LogsEachChunkOnlyWhenAskedTo) {
  CategoryRecorder log("k.Ssh", log4cpp::Priority::DEBUG);
  SlowWriteChannel to(100);
  PiecewiseReadChannel quiet({"secret"});
  pump(quiet, to);
  EXPECT_THAT(log.lines(), testing::IsEmpty());
  PiecewiseReadChannel logged({"one", std::string("two\0\xff", 5)});
  pump_with_log(logged, to);
  EXPECT_THAT(log.lines(),
              testing::ElementsAre("DEBUG k.Ssh: remote stdin <- one",
                                   "DEBUG k.Ssh: remote stdin <- two" + std::string("\0\xff", 2)));
  EXPECT_EQ(to.received, "secretonetwo" + std::string("\0\xff", 2));
}

TEST(IOStreamReadChannelTest, ReadsToTheEndAndThenGivesNothing) {
  std::istringstream stream("12345");
  IOStreamReadChannel channel(stream);
  char buffer[4];
  EXPECT_EQ(channel.read(buffer, 4), 4);
  EXPECT_EQ(channel.read(buffer, 4), 1);
  EXPECT_EQ(buffer[0], '5');
  EXPECT_EQ(channel.read(buffer, 4), 0);
}

TEST(IOStreamReadChannelTest, TakesAFileThatCannotBeOpenedForAnEmptyOne) {
  std::ifstream missing("/mnt/no such file");
  IOStreamReadChannel channel(missing);
  char buffer[4];
  EXPECT_EQ(channel.read(buffer, 4), 0);
}

TEST(IOStreamWriteChannelTest, WritesAllOfItOrFails) {
  std::ostringstream stream;
  IOStreamWriteChannel channel(stream);
  EXPECT_EQ(channel.write("abc", 3), 3);
  EXPECT_EQ(stream.str(), "abc");
  stream.setstate(std::ios::failbit);
  EXPECT_EQ(channel.write("abc", 3), -1);
}

TEST(NullCounterTest, CountsNothing) {
  Ssh::null_counter(65536);
}
