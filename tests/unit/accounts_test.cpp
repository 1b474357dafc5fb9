#include "hostlib/accounts.h"

#include "support.h"

namespace {

/// An account whose user and group have different numbers.
class AccountsTest : public testing::Test {
 protected:
  ScopedFile passwd_{"/etc/passwd",
                     readFile("/etc/passwd") + "split:x:20101:20202::/nonexistent:/bin/sh\n"};
  SystemLog systemLog_;
};

}  // namespace

TEST_F(AccountsTest, AreFoundByName) {
  EXPECT_EQ(get_user_id("qrvadm"), QRVADM);
  EXPECT_EQ(get_user_id("split"), 20101u);
  EXPECT_EQ(get_user_id("root"), 0u);
  EXPECT_EQ(korvo_ugid("split", UGID_USER), 20101u);
  EXPECT_EQ(korvo_ugid("split", UGID_GROUP), 20202u);
  EXPECT_THAT(systemLog_.lines(), testing::IsEmpty());
}

TEST_F(AccountsTest, ThatAreUnknownHaveTheNumberZeroAndAreReported) {
  for (const char* name : {"no-such-account", "20101", "Split", ""}) {
    SCOPED_TRACE(name);
    const auto reported = testing::ElementsAre(
        testing::StartsWith(std::string("Unable to find uid for user ") + name + ": "));
    EXPECT_EQ(get_user_id(name), 0u);
    EXPECT_THAT(systemLog_.lines(), reported);
    EXPECT_EQ(korvo_ugid(name, UGID_USER), 0u);
    EXPECT_THAT(systemLog_.lines(), reported);
    EXPECT_EQ(korvo_ugid(name, UGID_GROUP), 0u);
    EXPECT_THAT(systemLog_.lines(), reported);
  }
}
