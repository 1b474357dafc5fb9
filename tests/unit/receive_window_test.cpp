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
      left_ -= PACKET;
      received += PACKET;
      const std::size_t more = window_.grant(left_, now_);
      largestGrant_ = std::max(largestGrant_, more);
      left_ += more;
      if (more > 0) grants_.emplace_back(now_, more);
    }
    return received;
  }

  std::size_t target() const { return window_.target(); }
  std::size_t largestGrant() const { return largestGrant_; }

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

  ReceiveWindow window_;
  Duration roundTrip_;
  Duration packetTime_;
  Time now_{};
  Time sent_{};
  std::size_t left_ = 0;
  std::deque<std::pair<Time, std::size_t>> grants_;
  std::size_t largestGrant_ = 0;
};

}  // namespace

TEST(ReceiveWindowTest, StaysSmallOnAShortWay) {
  Download download(200us, 500e6);
  EXPECT_GT(download.run(1s), 490u * 1000 * 1000);
  EXPECT_EQ(download.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, GrowsToItsLargestOnALongFastWay) {
  Download download(200ms, 1e9);
  download.run(3s);
  EXPECT_EQ(download.target(), ReceiveWindow::LARGEST);
  EXPECT_GT(download.run(1s), 300 * MIB);
}

TEST(ReceiveWindowTest, FillsASlowWayAndGrowsNoFurther) {
  // 1 Gbit/s at 50 ms: 6 MB are on the way at any time.
  Download download(50ms, 125e6);
  download.run(1s);
  EXPECT_GT(download.run(1s), 120u * 1000 * 1000);
  EXPECT_LE(download.target(), 16 * MIB);
  Download slow(200ms, 1e6);
  slow.run(10s);
  EXPECT_EQ(slow.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, IsGrantedInStepsThatFollowWhatHasCome) {
  Download download(200ms, 1e9);
  download.run(3s);
  EXPECT_LE(download.largestGrant(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, KeepsForTheNextCommandWhatItHasLearnt) {
  Download download(100ms, 1e9);
  download.run(3s);
  const std::size_t learnt = download.target();
  download.start();
  EXPECT_EQ(download.target(), learnt);
  // It doubles with each round trip, without learning anew.
  download.run(800ms);
  EXPECT_GT(download.run(1s), 500 * MIB);
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
  window.addRoundTrip(1s);
  // The clock stands still.
  EXPECT_EQ(window.grant(0, Time{} + 1ms), MIB);
  EXPECT_EQ(window.target(), ReceiveWindow::SMALLEST);
}

TEST(ReceiveWindowTest, GrantsNothingThatIsNotWorthAMessage) {
  ReceiveWindow window;
  window.begin(MIB, Time{});
  EXPECT_EQ(window.grant(MIB - ReceiveWindow::STEP + 1, Time{}), 0u);
  EXPECT_EQ(window.grant(MIB - ReceiveWindow::STEP, Time{}), ReceiveWindow::STEP);
}
