#include "commons/progress_line.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <utility>

#include "commons/console.h"
#include "support.h"

namespace {

using std::chrono::milliseconds;

const std::string ERASED = "\r\x1b[K";

/// A terminal, and the other end of it, which shows what a person would see.
class ScopedTerminal {
 public:
  ScopedTerminal() : eye_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    grantpt(eye_.get());
    unlockpt(eye_.get());
    side_ = UniqueFd(open(ptsname(eye_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios mode{};
    tcgetattr(side_.get(), &mode);
    cfmakeraw(&mode);
    tcsetattr(side_.get(), TCSANOW, &mode);
  }

  int descriptor() const { return side_.get(); }
  void resize(unsigned short columns) {
    const winsize size = {25, columns, 0, 0};
    ioctl(side_.get(), TIOCSWINSZ, &size);
  }
  void stop() { tcflow(side_.get(), TCOOFF); }
  void goOn() { tcflow(side_.get(), TCOON); }
  void hangUp() { eye_.close(); }
  /// What the terminal was sent since the last call.
  std::string shown() {
    // The text arrives with a delay: this mark comes after all of it.
    writeAll(side_.get(), END);
    while (arrived_.find(END) == std::string::npos && isMoreThere(10000)) readSome();
    const std::string all = std::exchange(arrived_, "");
    return all.substr(0, all.find(END));
  }
  /// True when something arrives within the time.
  bool isMoreThere(int patienceMs = 50) {
    pollfd waiting = {eye_.get(), POLLIN, 0};
    return poll(&waiting, 1, patienceMs) > 0;
  }

 private:
  static constexpr const char* END = "(end)";

  void readSome() {
    std::array<char, 4096> buffer{};
    const ssize_t got = read(eye_.get(), buffer.data(), buffer.size());
    if (got > 0) arrived_.append(buffer.data(), static_cast<std::size_t>(got));
  }

  UniqueFd eye_;
  UniqueFd side_;
  std::string arrived_;
};

/// A progress line on a terminal, with a clock that the test sets.
class ProgressLineTest : public testing::Test {
 protected:
  ProgressLineTest() {
    unsetenv("TERM");
    line_ = newLine();
  }

  std::unique_ptr<ProgressLine> newLine() {
    return ProgressLine::on(terminal_.descriptor(), [this] { return now_; });
  }
  void show(const std::string& text) {
    line_->show([&] {
      ++asked_;
      return text;
    });
  }
  std::string shown() { return terminal_.shown(); }

  ScopedTerminal terminal_;
  ProgressLine::Clock::time_point now_{milliseconds(5000)};
  std::unique_ptr<ProgressLine> line_;
  int asked_ = 0;
};

}  // namespace

TEST_F(ProgressLineTest, DrawsAtOnceAndThenAtMostTenTimesASecond) {
  for (int i = 0; i < 1000; ++i) {
    show("x");
    now_ += milliseconds(1);
  }
  EXPECT_EQ(asked_, 10);
  std::string drawings;
  for (int i = 0; i < 10; ++i) drawings += ERASED + "x";
  EXPECT_EQ(shown(), drawings);
}

TEST_F(ProgressLineTest, IsNotDrawnSoonerForHavingMadeWay) {
  show("a");
  line_->makeWay();
  show("b");
  EXPECT_EQ(shown(), ERASED + "a" + ERASED);
}

TEST_F(ProgressLineTest, SaysNothingWhereThereIsNothingToSay) {
  show("");
  line_->erase();
  EXPECT_EQ(shown(), "");
}

TEST_F(ProgressLineTest, StaysBelowTheWidthThatTheTerminalHasAtTheTime) {
  const std::string text(200, 'x');
  for (const unsigned short columns : {40, 20, 1}) {
    terminal_.resize(columns);
    show(text);
    EXPECT_EQ(shown(), ERASED + std::string(columns - 1U, 'x'));
    now_ += milliseconds(100);
  }
}

TEST_F(ProgressLineTest, TakesATerminalWithoutAWidthForAUsualOne) {
  terminal_.resize(0);
  show(std::string(200, 'x'));
  EXPECT_EQ(shown(), ERASED + std::string(79, 'x'));
}

TEST_F(ProgressLineTest, ShowsControlCharactersByTheirNumbers) {
  show("a\x1b[2J\r\n\x9b.");
  EXPECT_EQ(shown(), ERASED + "a\\x1b[2J\\x0d \\x9b.");
}

TEST_F(ProgressLineTest, IsErasedOnceAndWhenItGoes) {
  show("a");
  line_->erase();
  line_->erase();
  line_->makeWay();
  EXPECT_EQ(shown(), ERASED + "a" + ERASED);
  now_ += milliseconds(100);
  show("b");
  line_.reset();
  EXPECT_EQ(shown(), ERASED + "b" + ERASED);
}

TEST_F(ProgressLineTest, IsNeverDrawnAgainOnceItIsClosed) {
  show("a");
  line_->close();
  now_ += milliseconds(100);
  show("b");
  EXPECT_EQ(shown(), ERASED + "a" + ERASED);
}

TEST_F(ProgressLineTest, DoesNotWaitForAStoppedTerminal) {
  show("a");
  EXPECT_EQ(shown(), ERASED + "a");
  terminal_.stop();
  now_ += milliseconds(100);
  show("b");
  line_->erase();
  EXPECT_FALSE(terminal_.isMoreThere());
  terminal_.goOn();
  now_ += milliseconds(100);
  show("c");
  EXPECT_EQ(shown(), ERASED + "c");
}

TEST_F(ProgressLineTest, ErasesAheadOfTheNextTextWhatItCouldNotErase) {
  show("a");
  terminal_.stop();
  line_->erase();
  terminal_.goOn();
  EXPECT_EQ(shown(), ERASED + "a");
  line_->makeWay();
  EXPECT_EQ(shown(), ERASED);
}

TEST_F(ProgressLineTest, LeavesTheFlagsOfTheDescriptorAsTheyAre) {
  const int flags = fcntl(terminal_.descriptor(), F_GETFL);
  show("a");
  line_->erase();
  EXPECT_EQ(fcntl(terminal_.descriptor(), F_GETFL), flags);
  EXPECT_EQ(flags & O_NONBLOCK, 0);
}

TEST_F(ProgressLineTest, DoesNotMindATerminalThatIsGone) {
  terminal_.hangUp();
  show("a");
  line_->erase();
  line_->makeWay();
}

TEST_F(ProgressLineTest, IsNotThereOnADumbTerminal) {
  setenv("TERM", "dumb", 1);
  EXPECT_EQ(newLine(), nullptr);
  setenv("TERM", "vt100", 1);
  EXPECT_NE(newLine(), nullptr);
}

TEST_F(ProgressLineTest, IsNotThereWithoutATerminal) {
  const UniqueFd file(open("/dev/null", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(ProgressLine::on(file.get()), nullptr);
  EXPECT_EQ(ProgressLine::on(-1), nullptr);
}

TEST_F(ProgressLineTest, MakesWayForWhatIsWrittenThroughAGuard) {
  std::ostringstream stream;
  const TerminalGuard guard(stream, terminal_.descriptor(), line_.get());
  show("a");
  stream << "";
  EXPECT_EQ(shown(), ERASED + "a");
  stream << "error";
  EXPECT_EQ(shown(), ERASED);
  EXPECT_EQ(stream.str(), "error");
}

TEST(FitLineTest, CutsBetweenCharactersAndCountsWideOnesTwice) {
  EXPECT_EQ(fitLine("abc", 3), "abc");
  EXPECT_EQ(fitLine("abcd", 3), "abc");
  EXPECT_EQ(fitLine("a\xE2\x82\xAC"
                    "b",
                    3),
            "a\xE2\x82\xAC");
  EXPECT_EQ(fitLine("ab\xE2\x82\xAC", 3), "ab");
  EXPECT_EQ(fitLine("abc", 0), "");
}

TEST(FitLineTest, IsOneLineThatNoTerminalObeys) {
  EXPECT_EQ(fitLine("a\nb\tc\x1b[2J", 80), "a b c\\x1b[2J");
}
