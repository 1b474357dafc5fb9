#include "commons/uuid.h"

#include <cstdlib>
#include <set>

#include "support.h"

TEST(UuidTest, Has36VisibleCharactersAndATerminatingZeroByte) {
  const std::string id = newUUID();
  ASSERT_EQ(id.size(), 37u);
  EXPECT_EQ(id[36], '\0');
  EXPECT_THAT(id.c_str(), testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-"
                                                "[0-9a-f]{12}"));
}

TEST(UuidTest, TakesTheLowFourBitsOfEachRandomNumber) {
  std::srand(20240229);
  const std::string id = newUUID();
  std::srand(20240229);
  std::string expected = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
  for (char& c : expected) {
    if (c == 'x') c = "0123456789abcdef"[std::rand() & 15];
  }
  EXPECT_EQ(id.c_str(), expected);
}

TEST(UuidTest, DiffersEachTime) {
  std::set<std::string> ids;
  for (int i = 0; i < 1000; ++i) ids.insert(newUUID());
  EXPECT_EQ(ids.size(), 1000u);
}
