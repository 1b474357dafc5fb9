#include "commons/console.h"

#include <fcntl.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

#include "support.h"

TEST(EscapeForTerminalTest, KeepsTextLineEndsAndTabs) {
  const std::string text = "plain \\x1b ~\n\t\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80 \xC2\xA0";
  EXPECT_EQ(escapeForTerminal(text), text);
  EXPECT_EQ(escapeForTerminal(""), "");
}

TEST(EscapeForTerminalTest, ShowsControlCharactersAsBytes) {
  EXPECT_EQ(escapeForTerminal(std::string("\0a\x1b[2J\r\b\x7f", 9)),
            "\\x00a\\x1b[2J\\x0d\\x08\\x7f");
  // U+0080, U+009B and U+009F are control characters, which begin sequences as ESC does.
  EXPECT_EQ(escapeForTerminal("\xC2\x80 \xC2\x9B \xC2\x9F"), "\\xc2\\x80 \\xc2\\x9b \\xc2\\x9f");
}

TEST(EscapeForTerminalTest, ShowsWhatIsNotUtf8AsBytes) {
  EXPECT_EQ(escapeForTerminal("\x9b caf\xE9"), "\\x9b caf\\xe9");
  EXPECT_EQ(escapeForTerminal("\xE2\x82"), "\\xe2\\x82");
  EXPECT_EQ(escapeForTerminal("\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80"),
            "\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80");
}

TEST(TerminalGuardTest, EscapesWhatGoesToATerminalAndNothingAfterwards) {
  const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_TRUE(terminal);
  std::ostringstream stream;
  {
    const TerminalGuard guard(stream, terminal.get());
    stream << "a\x1b" << '\r' << 42 << std::flush;
  }
  stream << "\x1b";
  EXPECT_EQ(stream.str(), "a\\x1b\\x0d42\x1b");
}

TEST(TerminalGuardTest, LeavesOtherStreamsAsTheyAre) {
  const UniqueFd file(open("/dev/null", O_WRONLY | O_CLOEXEC));
  std::ostringstream stream;
  const TerminalGuard guard(stream, file.get());
  stream << "a\x1b\x9b";
  EXPECT_EQ(stream.str(), "a\x1b\x9b");
}

TEST(TerminalGuardTest, ReportsAFailureOfTheStream) {
  const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::filebuf closed;
  std::ostream stream(&closed);
  const TerminalGuard guard(stream, terminal.get());
  stream << "text";
  EXPECT_FALSE(stream.good());
}
