#include "hostlib/env_password.h"

#include <cstdlib>

#include "support.h"

namespace {

std::string environmentBlock() {
  return readFile("/proc/self/environ");
}

const std::string LONGEST(4096, 'p');

}  // namespace

TEST(EnvPasswordTest, IsTakenOutOfTheEnvironmentAndRemembered) {
  IN_FRESH_PROCESS("QRV_PASSWORD=open sesame");
  EXPECT_THAT(environmentBlock(), testing::HasSubstr("open sesame"));
  EXPECT_STREQ(get_env_noncrypted_password(), "open sesame");
  EXPECT_EQ(getenv("QRV_PASSWORD"), nullptr);
  EXPECT_THAT(environmentBlock(), testing::Not(testing::HasSubstr("open sesame")));
  EXPECT_STREQ(get_env_noncrypted_password(), "open sesame");
}

TEST(EnvPasswordTest, IsEmptyWhenTheVariableIsNotSet) {
  IN_FRESH_PROCESS();
  EXPECT_STREQ(get_env_noncrypted_password(), "");
  setenv("QRV_PASSWORD", "later", 1);
  EXPECT_STREQ(get_env_noncrypted_password(), "later");
  EXPECT_EQ(getenv("QRV_PASSWORD"), nullptr);
}

TEST(EnvPasswordTest, IsEmptyWhenTheVariableIsAndTheVariableGoes) {
  IN_FRESH_PROCESS("QRV_PASSWORD=");
  EXPECT_STREQ(get_env_noncrypted_password(), "");
  EXPECT_EQ(getenv("QRV_PASSWORD"), nullptr);
}

TEST(EnvPasswordTest, IsCutTo4096Bytes) {
  IN_FRESH_PROCESS("QRV_PASSWORD=" + LONGEST + "too much");
  EXPECT_EQ(get_env_noncrypted_password(), LONGEST);
  EXPECT_THAT(environmentBlock(), testing::Not(testing::HasSubstr("too much")));
}

TEST(EnvPasswordTest, KeepsAllOf4096Bytes) {
  IN_FRESH_PROCESS("QRV_PASSWORD=" + LONGEST);
  EXPECT_EQ(get_env_noncrypted_password(), LONGEST);
}

TEST(EnvPasswordTest, LeavesNoSecondCopyOfTheVariable) {
  IN_FRESH_PROCESS("QRV_PASSWORD=first copy", "QRV_PASSWORD=second copy");
  EXPECT_STREQ(get_env_noncrypted_password(), "first copy");
  EXPECT_EQ(getenv("QRV_PASSWORD"), nullptr);
  EXPECT_THAT(environmentBlock(), testing::Not(testing::HasSubstr(" copy")));
}

TEST(WipeEnvVariableTest, OverwritesTheBytesOfThatVariableOnly) {
  IN_FRESH_PROCESS("QRV_SUDO_PASSWORD=secret 1", "QRV_SUDO_PASSWORD_HINT=secret 2",
                   "MY_QRV_SUDO_PASSWORD=secret 3");
  wipe_env_variable("QRV_SUDO_PASSWORD");
  EXPECT_EQ(getenv("QRV_SUDO_PASSWORD"), nullptr);
  EXPECT_STREQ(getenv("QRV_SUDO_PASSWORD_HINT"), "secret 2");
  EXPECT_STREQ(getenv("MY_QRV_SUDO_PASSWORD"), "secret 3");
  EXPECT_THAT(environmentBlock(), testing::Not(testing::HasSubstr("secret 1")));
  wipe_env_variable("QRV_SUDO_PASSWORD");
}
