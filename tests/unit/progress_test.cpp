#include "sondrel/progress.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <limits>

#include "support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

RateMeter::Clock::time_point at(milliseconds time) {
  return RateMeter::Clock::time_point(time);
}

DumpFile file(const std::string& name, std::int64_t size, bool sizeIsListed = true) {
  return {name, size, "", sizeIsListed};
}

}  // namespace

TEST(RateMeterTest, KnowsNoRateBeforeHalfASecond) {
  RateMeter meter;
  EXPECT_EQ(meter.rate(), std::nullopt);
  meter.note(at(seconds(1)), 0);
  EXPECT_EQ(meter.rate(), std::nullopt);
  meter.note(at(milliseconds(1499)), 5000);
  EXPECT_EQ(meter.rate(), std::nullopt);
  meter.note(at(milliseconds(1500)), 5000);
  EXPECT_EQ(meter.rate(), 10000);
}

TEST(RateMeterTest, ForgetsWhatIsMoreThanFiveSecondsOld) {
  RateMeter meter;
  for (int i = 0; i <= 100; ++i) meter.note(at(milliseconds(100) * i), i * 1000);
  EXPECT_EQ(meter.rate(), 10000);
  // 50 kB in 10 s, then nothing.
  for (int i = 101; i <= 125; ++i) meter.note(at(milliseconds(100) * i), 100000);
  EXPECT_EQ(meter.rate(), 5000);
  for (int i = 126; i <= 150; ++i) meter.note(at(milliseconds(100) * i), 100000);
  EXPECT_EQ(meter.rate(), 0);
}

TEST(RateMeterTest, CountsAPauseOfTheLookerOn) {
  RateMeter meter;
  meter.note(at(seconds(0)), 0);
  meter.note(at(seconds(20)), 20000);
  EXPECT_EQ(meter.rate(), 1000);
  meter.note(at(seconds(30)), 50000);
  EXPECT_EQ(meter.rate(), 3000);
}

TEST(ContentProgressTest, TellsFilesBytesRateAndTimeLeft) {
  ContentProgress progress({file("a", 1000), file("b", 3000)});
  progress.startFile("a", 1000);
  EXPECT_EQ(progress.describe(at(seconds(0))), "2 of 2 files left, 0 B of 4.0 kB (0 %), a");
  progress.receive(600);
  progress.receive(400);
  EXPECT_EQ(progress.describe(at(seconds(1))),
            "2 of 2 files left, 1.0 kB of 4.0 kB (25 %), 1.0 kB/s, 0:03 left, a");
  progress.finishFile();
  progress.startFile("b", 3000);
  EXPECT_EQ(progress.describe(at(seconds(2))),
            "1 of 2 files left, 1.0 kB of 4.0 kB (25 %), 500 B/s, 0:06 left, b");
  progress.receive(3000);
  progress.finishFile();
  EXPECT_EQ(progress.describe(at(seconds(3))),
            "0 of 2 files left, 4.0 kB of 4.0 kB (100 %), 1.3 kB/s, 0:00 left, b");
}

TEST(ContentProgressTest, CountsAFileThatIsHereAsDoneAndNotForTheRate) {
  ContentProgress progress({file("a", 1000), file("b", 3000)});
  progress.startFile("a", 1000);
  EXPECT_EQ(progress.describe(at(seconds(0))), "2 of 2 files left, 0 B of 4.0 kB (0 %), a");
  progress.finishFile();
  progress.startFile("b", 3000);
  progress.receive(1000);
  EXPECT_EQ(progress.describe(at(seconds(1))),
            "1 of 2 files left, 2.0 kB of 4.0 kB (50 %), 1.0 kB/s, 0:02 left, b");
}

TEST(ContentProgressTest, TakesAFileThatIsLongerThanListedForAllOfIt) {
  ContentProgress progress({file("a", 1000), file("b", 1000)});
  progress.startFile("a", 1000);
  progress.receive(1500);
  EXPECT_EQ(progress.describe(at(seconds(0))), "2 of 2 files left, 1.0 kB of 2.0 kB (50 %), a");
}

TEST(ContentProgressTest, TellsWhatHasComeWhereTheSizesAreImpossible) {
  constexpr std::int64_t MOST = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
  const std::vector<std::vector<DumpFile>> lists = {
      {file("a", -1), file("b", 5)},
      {file("a", LEAST), file("b", LEAST)},
      {file("a", MOST), file("b", 1)},
      {file("a", 0, false), file("b", 1)},
  };
  for (const std::vector<DumpFile>& list : lists) {
    ContentProgress progress(list);
    progress.startFile("a", list[0].size);
    progress.receive(1500);
    progress.finishFile();
    progress.startFile("b", list[1].size);
    EXPECT_EQ(progress.describe(at(seconds(0))), "1 of 2 files left, 1.5 kB, b");
  }
}

TEST(DumpProgressTest, TellsHowLongItTakesAndTheStatusOfThisDump) {
  const ScopedTempDir directory;
  const std::string path = directory / "dumping-status.xml";
  writeFile(path, "<dumping-status stage='finished'/>");
  const timespec old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old, 0), 0);
  const DumpProgress progress(path);
  EXPECT_THAT(progress.describe(), testing::MatchesRegex("dump, 0:0[0-9]"));
  writeFile(path, "<dumping-status stage='content' done='1' total='2'/>");
  EXPECT_THAT(progress.describe(), testing::MatchesRegex("dump, 0:0[0-9]: content, 1 of 2 done"));
}

TEST(ProgressLineControllerTest, MakesNoLineWhereNobodyLooksOn) {
  const UniqueFd nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
  const ProgressLineController controller(nothing.get());
  EXPECT_EQ(theProgressLine, nullptr);
}
