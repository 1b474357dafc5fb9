#include "transport/receive_window.h"

#include <deque>

#include "support.h"

using namespace std::chrono_literals;

namespace {

using Time = ReceiveWindow::Clock::time_point;
using Duration = ReceiveWindow::Clock::duration;
using Seconds = std::chrono::duration<double>;

constexpr std::size_t MIB = std::size_t{1} << 20;
constexpr std::size_t PACKET = 16384;

/// Simulates a server that sends as much as it may over a connection, and the window of a download
/// from it.
class Download {
 public:
  Download(Duration roundTrip, double bytesPerSecond)
      : roundTrip_(roundTrip),
        packetTime_(std::chrono::duration_cast<Duration>(Seconds(PACKET / bytesPerSecond))) {
    window_.addRoundTrip(roundTrip);
    start();
  }

  /// Starts another command on the same connection.
  void start() {
    const std::size_t opened = 65536;
    left_ = opened;
    grants_ = {{now_, opened}};
    window_.begin(opened, now_);
  }

  /// Receives for the time `length`; returns the number of bytes.
  std::size_t run(Duration length) {
    const Time end = now_ + length;
    std::size_t received = 0;
    while (now_ < end) {
      // Packets leave one after the other, each when there is a grant for it.
      const Time granted = useGrant();
      sent_ = std::max(sent_ + packetTime_, granted + roundTrip_ / 2);
      now_ = std::max(now_, sent_ + roundTrip_ / 2);
      grant();
      left_ -= PACKET;
      received += PACKET;
      grant();
    }
    return received;
  }

  void sawRoundTrip(Duration taken) { window_.addRoundTrip(taken); }

  std::size_t target() const { return window_.target(); }
  std::size_t largestGrant() const { return largestGrant_; }
  /// The most that the server was allowed to send at any time.
  std::size_t largestWindow() const { return largestWindow_; }
  void forgetLargest() { largestGrant_ = largestWindow_ = 0; }

 private:
  Time useGrant() {
    while (grants_.front().second < PACKET) {
      const std::size_t rest = grants_.front().second;
      grants_.pop_front();
      grants_.front().second += rest;
    }
    grants_.front().second -= PACKET;
    return grants_.front().first;
  }

  void grant() {
    const std::size_t more = window_.grant(left_, now_);
    largestGrant_ = std::max(largestGrant_, more);
    left_ += more;
    largestWindow_ = std::max(largestWindow_, left_);
    if (more > 0) grants_.emplace_back(now_, more);
  }

  ReceiveWindow window_;
  Duration roundTrip_;
  Duration packetTime_;
  Time now_{};
  Time sent_{};
  std::size_t left_ = 0;
  std::deque<std::pair<Time, std::size_t>> grants_;
  std::size_t largestGrant_ = 0;
  std::size_t largestWindow_ = 0;
};

}  // namespace

TEST(ReceiveWindowTest, StaysSmallOnAShortWay) {
  Download download(200us, 500e6);
  EXPECT_GT(download.run(1s), 490u * 1000 * 1000);
  EXPECT_EQ(download.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, GrowsToItsLargestInALongCommandOnALongFastWay) {
  Download download(200ms, 1e9);
  download.run(400s);
  EXPECT_EQ(download.target(), ReceiveWindow::LARGEST);
  EXPECT_GT(download.run(1s), 300 * MIB);
}

TEST(ReceiveWindowTest, FillsASlowWayAndGrowsNoFurther) {
  // 1 Gbit/s at 50 ms: 6 MB are on the way at any time.
  Download download(50ms, 125e6);
  download.run(4s);
  EXPECT_GT(download.run(1s), 120u * 1000 * 1000);
  EXPECT_LE(download.target(), 16 * MIB);
  Download slow(200ms, 1e6);
  slow.run(10s);
  EXPECT_EQ(slow.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, GrowsAlthoughMostRoundTripsTakeLongerThanTheShortest) {
  // A busy machine answers later than it did once: the whole window comes in a burst, then nothing
  // for 80 ms.
  Download download(80ms, 1e9);
  download.sawRoundTrip(50ms);
  download.run(2s);
  EXPECT_GE(download.target(), 4 * MIB);
}

TEST(ReceiveWindowTest, CostsAServerThatReadsAheadNoMoreThanTheCommandIsWorth) {
  Download download(100ms, 1e9);
  download.run(320ms);
  EXPECT_LE(download.largestWindow(), 2 * MIB);
  download.run(1s);
  EXPECT_GE(download.largestWindow(), 3 * MIB);
  EXPECT_LE(download.largestWindow(), 5 * MIB);
  download.run(7s);
  EXPECT_GE(download.largestWindow(), 9 * MIB);
  EXPECT_LE(download.largestWindow(), 11 * MIB);
}

TEST(ReceiveWindowTest, IsGrantedInStepsThatFollowWhatHasCome) {
  Download download(200ms, 1e9);
  EXPECT_LE(download.largestGrant(), ReceiveWindow::SMALLEST);
  download.run(300ms);
  download.forgetLargest();
  download.run(3s);
  EXPECT_LE(download.largestGrant(), 2 * ReceiveWindow::STEP);
}

TEST(ReceiveWindowTest, KeepsForTheNextCommandWhatItHasLearnt) {
  Download download(100ms, 1e9);
  download.run(10s);
  const std::size_t learnt = download.target();
  EXPECT_GE(learnt, 8 * MIB);
  download.start();
  download.forgetLargest();
  EXPECT_EQ(download.target(), learnt);
  // A command of its own has to be worth a large window, too.
  download.run(300ms);
  EXPECT_LE(download.largestWindow(), 2 * MIB);
  download.run(1s);
  EXPECT_GE(download.largestWindow(), 3 * MIB);
}

TEST(ReceiveWindowTest, CountsTheShortestRoundTrip) {
  ReceiveWindow window;
  for (const Duration roundTrip : {Duration(10s), Duration(1ms), Duration(10s)}) {
    window.addRoundTrip(roundTrip);
  }
  window.begin(MIB, Time{});
  // The whole window takes ten round trips.
  EXPECT_EQ(window.grant(0, Time{} + 10ms), MIB);
  EXPECT_EQ(window.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, DoesNotGrowByWhatItCannotMeasure) {
  ReceiveWindow window;
  window.begin(MIB, Time{});
  EXPECT_EQ(window.grant(0, Time{} + 1ms), MIB);
  EXPECT_EQ(window.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, DoesNotCountThePauseBeforeTheFirstBytes) {
  ReceiveWindow window;
  window.addRoundTrip(10ms);
  window.begin(MIB, Time{});
  EXPECT_EQ(window.grant(MIB, Time{}), 0u);
  EXPECT_EQ(window.grant(MIB, Time{} + 1s), 0u);
  EXPECT_EQ(window.grant(0, Time{} + 1s + 5ms), 3 * MIB / 2);
  EXPECT_EQ(window.target(), 3 * MIB / 2);
}

TEST(ReceiveWindowTest, GrantsNothingThatIsNotWorthAMessage) {
  ReceiveWindow window;
  window.begin(MIB, Time{});
  EXPECT_EQ(window.grant(MIB - ReceiveWindow::STEP + 1, Time{}), 0u);
  EXPECT_EQ(window.grant(MIB - ReceiveWindow::STEP, Time{}), ReceiveWindow::STEP);
}

TEST(ReceiveWindowTest, GrantsNothingBeyondAWindowThatIsLargerThanAllowed) {
  ReceiveWindow window;
  window.begin(65536, Time{});
  EXPECT_EQ(window.grant(4 * MIB, Time{}), 0u);
  window.begin(4 * MIB, Time{});
  EXPECT_EQ(window.grant(3 * MIB, Time{} + 1ms), 0u);
  EXPECT_EQ(window.grant(5 * MIB, Time{} + 2ms), 0u);
}
