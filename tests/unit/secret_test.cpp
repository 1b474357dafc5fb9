#include "hostlib/secret.h"

#include "support.h"

TEST(SecretTest, MayBeMissingOrEmpty) {
  EXPECT_FALSE(Secret().isGiven());
  EXPECT_TRUE(Secret().isEmpty());
  EXPECT_EQ(Secret().reveal(), "");
  EXPECT_TRUE(Secret("").isGiven());
  EXPECT_TRUE(Secret("").isEmpty());
}

TEST(SecretTest, TakesATextOverAndWipesIt) {
  std::string text = "open sesame";
  const Secret secret(std::move(text));
  EXPECT_EQ(secret.reveal(), "open sesame");
  EXPECT_EQ(text, std::string(11, '\0'));  // NOLINT(bugprone-use-after-move)
}

TEST(SecretTest, MovesAndLeavesNothingBehind) {
  Secret first("one");
  const Secret second(std::move(first));
  EXPECT_EQ(second.reveal(), "one");
  EXPECT_FALSE(first.isGiven());  // NOLINT(bugprone-use-after-move)
}

TEST(SecretTest, MayBeReplacedAndForgotten) {
  Secret secret("old");
  secret = Secret("new");
  EXPECT_EQ(secret.reveal(), "new");
  secret.wipe();
  EXPECT_FALSE(secret.isGiven());
  EXPECT_EQ(secret.reveal(), "");
}
