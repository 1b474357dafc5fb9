#include <limits>

#include "migrate/console.h"
#include "migrate/figures.h"
#include "migrate/step.h"
#include "support.h"

TEST(MigrateFiguresTest, BytesHaveOneDecimalAndTheUnitThatFits) {
  const std::map<std::int64_t, std::string> expected = {
      {0, "0 B"},         {999, "999 B"},
      {1000, "1.0 kB"},   {999949, "999.9 kB"},
      {999950, "1.0 MB"}, {4000000000, "4.0 GB"},
      {-5, "-5 B"},       {std::numeric_limits<std::int64_t>::max(), "9223.4 PB"}};
  for (const auto& [bytes, text] : expected) EXPECT_EQ(migrate::formatBytes(bytes), text);
}

TEST(MigrateFiguresTest, DurationsHaveHoursOnlyWhereThereAreSome) {
  const std::map<std::int64_t, std::string> expected = {{0, "0:00"},       {59, "0:59"},
                                                        {600, "10:00"},    {3599, "59:59"},
                                                        {3600, "1:00:00"}, {360000, "100:00:00"}};
  for (const auto& [seconds, text] : expected) EXPECT_EQ(migrate::formatDuration(seconds), text);
}

TEST(MigrateFiguresTest, TimesAreUtcAndTheirDifferenceIsInSeconds) {
  EXPECT_EQ(migrate::formatTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(migrate::formatTime(1795255200), "2026-11-21T10:00:00Z");
  EXPECT_EQ(migrate::secondsBetween("2026-11-21T10:00:00Z", "2026-11-22T10:00:01Z"), 86401);
  EXPECT_EQ(migrate::secondsBetween("", "2026-11-22T10:00:01Z"), 0);
  EXPECT_EQ(migrate::secondsBetween("2026-11-21T10:00:00Z", "2026-11-22T10:00:01Z more"), 0);
}

TEST(MigrateStepTest, NamesLeadBackToTheirSteps) {
  for (const migrate::Step step : migrate::ALL_STEPS) {
    EXPECT_EQ(migrate::stepNamed(nameOf(step)), step);
  }
  EXPECT_EQ(migrate::stepNamed("Dump"), std::nullopt);
}

TEST(MigrateFitLineTest, CutsBetweenCharactersAndCountsWideOnesTwice) {
  EXPECT_EQ(migrate::fitLine("abc", 3), "abc");
  EXPECT_EQ(migrate::fitLine("abcd", 3), "abc");
  EXPECT_EQ(migrate::fitLine("a\xE2\x82\xAC"
                             "b",
                             3),
            "a\xE2\x82\xAC");
  EXPECT_EQ(migrate::fitLine("ab\xE2\x82\xAC", 3), "ab");
  EXPECT_EQ(migrate::fitLine("abc", 0), "");
}

TEST(MigrateFitLineTest, IsOneLineThatNoTerminalObeys) {
  EXPECT_EQ(migrate::fitLine("a\nb\tc\x1b[2J", 80), "a b c\\x1b[2J");
}
