#include "commons/collected_text.h"
#include "support.h"

TEST(CollectedTextTest, KeepsEveryByteUpToItsLimit) {
  CollectedText text(8);
  text << "abc" << 'd' << std::string("e\0f", 3);
  EXPECT_TRUE(text.good());
  EXPECT_EQ(text.str(), std::string("abcde\0f", 7));
  text << 'g';
  EXPECT_EQ(text.str().size(), 8u);
}

TEST(CollectedTextTest, CountsWhatItLeavesOut) {
  CollectedText text(8);
  text << "0123456";
  text << "789" << 'x';
  EXPECT_TRUE(text.good());
  EXPECT_EQ(text.str(), "01234567\n[3 more bytes were left out]\n");
}

TEST(CollectedTextTest, FailsAtItsLimitWhenItIsToRefuse) {
  CollectedText text(4, CollectedText::REFUSE);
  text << "0123";
  EXPECT_TRUE(text.good());
  text << "45";
  EXPECT_FALSE(text.good());
  EXPECT_EQ(text.str(), "0123");
}

TEST(CollectedTextTest, HoldsFourMebibytesIfNothingElseIsSaid) {
  CollectedText text;
  const std::string mebibyte(1 << 20, 'x');
  for (int i = 0; i < 5; ++i) text << mebibyte;
  EXPECT_EQ(text.str(),
            mebibyte + mebibyte + mebibyte + mebibyte + "\n[1048576 more bytes were left out]\n");
}
