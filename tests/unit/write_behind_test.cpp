#include "commons/write_behind.h"

#include <signal.h>

#include <future>
#include <stdexcept>

#include "support.h"

namespace {

/// Blocks the second thread until the test opens it.
class Gate {
 public:
  void open() { opened_.set_value(); }
  void wait() const { isOpen_.wait(); }

 private:
  std::promise<void> opened_;
  std::shared_future<void> isOpen_ = opened_.get_future().share();
};

std::string manyBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

bool putAll(WriteBehind& behind, const std::string& bytes) {
  return behind.put(bytes.data(), bytes.size());
}

}  // namespace

TEST(WriteBehindTest, TakesEveryByteInItsOrder) {
  const std::string bytes = manyBytes(5 * WriteBehind::CAPACITY + 4711);
  std::string taken;
  WriteBehind behind([&](const char* part, std::size_t size) {
    taken.append(part, size);
    return true;
  });
  std::size_t sizeOfPart = 1;
  for (std::size_t done = 0; done < bytes.size(); done += sizeOfPart) {
    sizeOfPart = std::min(2 * sizeOfPart + 1, bytes.size() - done);
    ASSERT_TRUE(behind.put(bytes.data() + done, sizeOfPart));
  }
  EXPECT_TRUE(behind.drain());
  EXPECT_TRUE(taken == bytes);
  EXPECT_TRUE(putAll(behind, "more"));
  EXPECT_TRUE(behind.drain());
  EXPECT_TRUE(taken == bytes + "more");
}

TEST(WriteBehindTest, HasNoMoreWaitThanItsCapacity) {
  Gate gate;
  std::atomic<std::size_t> brought{0};
  std::atomic<std::size_t> taken{0};
  std::atomic<std::size_t> mostWaiting{0};
  WriteBehind behind([&](const char* /*part*/, std::size_t size) {
    gate.wait();
    mostWaiting = std::max<std::size_t>(mostWaiting, brought - taken);
    taken += size;
    return true;
  });
  const std::string part(64 << 10, 'x');
  for (brought = 0; brought < WriteBehind::CAPACITY; brought += part.size()) {
    ASSERT_TRUE(putAll(behind, part));
  }
  // The queue has no room for it until the gate is open.
  std::promise<void> isPut;
  std::thread bringer([&] {
    putAll(behind, part);
    brought += part.size();
    isPut.set_value();
  });
  EXPECT_EQ(isPut.get_future().wait_for(std::chrono::milliseconds(50)),
            std::future_status::timeout);
  EXPECT_EQ(taken, 0u);
  gate.open();
  bringer.join();
  EXPECT_TRUE(behind.drain());
  EXPECT_EQ(taken, WriteBehind::CAPACITY + part.size());
  EXPECT_LE(mostWaiting, WriteBehind::CAPACITY + part.size());
}

TEST(WriteBehindTest, TakesNothingBehindWhatCouldNotBeTaken) {
  std::string taken;
  WriteBehind behind([&](const char* part, std::size_t size) {
    if (!taken.empty()) return false;
    taken.append(part, size);
    return true;
  });
  ASSERT_TRUE(putAll(behind, "taken"));
  ASSERT_TRUE(behind.drain());
  ASSERT_TRUE(putAll(behind, "not taken"));
  EXPECT_FALSE(behind.drain());
  EXPECT_FALSE(putAll(behind, "dropped"));
  EXPECT_FALSE(behind.drain());
  EXPECT_EQ(taken, "taken");
}

TEST(WriteBehindTest, TellsTheOneThatWaitsForRoomOfAFailure) {
  WriteBehind behind([](const char* /*part*/, std::size_t /*size*/) { return false; });
  EXPECT_FALSE(putAll(behind, std::string(3 * WriteBehind::CAPACITY, 'x')));
}

TEST(WriteBehindTest, PassesOnWhatWasThrownOnce) {
  WriteBehind behind([](const char* /*part*/, std::size_t /*size*/) -> bool {
    throw std::runtime_error("no more");
  });
  ASSERT_TRUE(putAll(behind, "x"));
  EXPECT_EQ(whatOf<std::runtime_error>([&] { behind.drain(); }), "no more");
  EXPECT_FALSE(behind.drain());
  EXPECT_FALSE(putAll(behind, "x"));
}

TEST(WriteBehindTest, TakesWhatWaitsBeforeItGoes) {
  const std::string bytes = manyBytes(WriteBehind::CAPACITY);
  std::string taken;
  Gate gate;
  std::thread opener;
  {
    WriteBehind behind([&](const char* part, std::size_t size) {
      gate.wait();
      taken.append(part, size);
      return true;
    });
    ASSERT_TRUE(putAll(behind, bytes));
    opener = std::thread([&] { gate.open(); });
  }
  opener.join();
  EXPECT_TRUE(taken == bytes);
}

TEST(WriteBehindTest, GoesAfterAFailureThatNobodyAskedFor) {
  int calls = 0;
  {
    WriteBehind behind([&](const char* /*part*/, std::size_t /*size*/) {
      ++calls;
      return false;
    });
    putAll(behind, "x");
  }
  EXPECT_EQ(calls, 1);
  const WriteBehind unused([](const char* /*part*/, std::size_t /*size*/) { return true; });
}

TEST(WriteBehindTest, LeavesEverySignalToTheThreadThatMadeIt) {
  sigset_t mask;
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  WriteBehind behind([&](const char* /*part*/, std::size_t /*size*/) {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return true;
  });
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  ASSERT_TRUE(putAll(behind, "x"));
  ASSERT_TRUE(behind.drain());
  for (const int number : {SIGUSR1, SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
    SCOPED_TRACE(number);
    EXPECT_EQ(sigismember(&mask, number), 1);
    EXPECT_EQ(sigismember(&after, number), sigismember(&before, number));
  }
}
