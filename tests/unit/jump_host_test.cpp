#include "commons/jump_host.h"

#include "support.h"

namespace {

/// The parsed parts as "login|host|port"; "none" when the text is refused.
std::string parsed(const std::string& text) {
  const std::optional<JumpHost> jump = parseJumpHost(text);
  return jump ? jump->login + "|" + jump->host + "|" + std::to_string(jump->port) : "none";
}

}  // namespace

TEST(ParseJumpHostTest, ReadsLoginHostAndPort) {
  EXPECT_EQ(parsed("jump.example"), "|jump.example|0");
  EXPECT_EQ(parsed("me@jump.example"), "me|jump.example|0");
  EXPECT_EQ(parsed("jump.example:2222"), "|jump.example|2222");
  EXPECT_EQ(parsed("me@192.0.2.1:65535"), "me|192.0.2.1|65535");
  EXPECT_EQ(parsed("me@mail.example@jump"), "me@mail.example|jump|0");
  EXPECT_EQ(parsed("[2001:db8::1]"), "|2001:db8::1|0");
  EXPECT_EQ(parsed("me@[2001:db8::1]:22"), "me|2001:db8::1|22");
}

TEST(ParseJumpHostTest, RefusesWhatIsNoneOrCouldBeMoreThanAName) {
  for (const std::string text : {"",
                                 "@jump",
                                 "me@",
                                 ":22",
                                 "jump:",
                                 "jump:0",
                                 "jump:65536",
                                 "jump:22x",
                                 "jump:123456",
                                 "[2001:db8::1",
                                 "[]",
                                 "[::1]22",
                                 "2001:db8::1",
                                 "-oProxyCommand=x",
                                 "-l@jump",
                                 "a b",
                                 "a;b",
                                 "$(id)",
                                 "`id`",
                                 "a\nb",
                                 "a,b",
                                 "jump/x",
                                 "%h",
                                 "j\xc3\xbcmp"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(parsed(text), "none");
  }
}
