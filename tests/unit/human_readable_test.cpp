#include "commons/human_readable.h"

#include <limits>

#include "support.h"

TEST(FiguresTest, BytesHaveOneDecimalAndTheUnitThatFits) {
  const std::map<std::int64_t, std::string> expected = {
      {0, "0 B"},         {999, "999 B"},
      {1000, "1.0 kB"},   {999949, "999.9 kB"},
      {999950, "1.0 MB"}, {4000000000, "4.0 GB"},
      {-5, "-5 B"},       {std::numeric_limits<std::int64_t>::max(), "9223.4 PB"}};
  for (const auto& [bytes, text] : expected) EXPECT_EQ(formatBytes(bytes), text);
}

TEST(FiguresTest, DurationsHaveHoursOnlyWhereThereAreSome) {
  const std::map<std::int64_t, std::string> expected = {{0, "0:00"},       {59, "0:59"},
                                                        {600, "10:00"},    {3599, "59:59"},
                                                        {3600, "1:00:00"}, {360000, "100:00:00"}};
  for (const auto& [seconds, text] : expected) EXPECT_EQ(formatDuration(seconds), text);
}

TEST(FiguresTest, TimesAreUtcAndTheirDifferenceIsInSeconds) {
  EXPECT_EQ(formatTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatTime(1795255200), "2026-11-21T10:00:00Z");
  EXPECT_EQ(secondsBetween("2026-11-21T10:00:00Z", "2026-11-22T10:00:01Z"), 86401);
  EXPECT_EQ(secondsBetween("", "2026-11-22T10:00:01Z"), 0);
  EXPECT_EQ(secondsBetween("2026-11-21T10:00:00Z", "2026-11-22T10:00:01Z more"), 0);
}

TEST(FiguresTest, TimesMayBeBeyond32Bits) {
  constexpr std::int64_t BEYOND_32_BITS = 4102444800;
  EXPECT_EQ(formatTime(static_cast<std::time_t>(BEYOND_32_BITS)), "2100-01-01T00:00:00Z");
  EXPECT_EQ(secondsBetween("1970-01-01T00:00:00Z", "2100-01-01T00:00:00Z"), BEYOND_32_BITS);
}
