#include "commons/sh_quoting.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "support.h"

namespace {

const std::string SPECIAL_BYTES = " \t\"#$&'()*;<>?[\\`|~";

/// Every byte except the zero byte, which no argument of a program can hold.
std::string allBytes() {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

/// The number of words that /bin/sh finds in `words`, and the first of them, as in "1/word".
std::string throughShell(const std::string& words) {
  struct Close {
    void operator()(std::FILE* file) const { pclose(file); }
  };
  const std::string command = "set -- " + words + "; printf '%s/%s' $# \"$1\"";
  const std::unique_ptr<std::FILE, Close> shell(popen(command.c_str(), "r"));
  std::string text;
  for (int c; (c = std::fgetc(shell.get())) != EOF;) text += static_cast<char>(c);
  return text;
}

}  // namespace

TEST(ShQuoteTest, PutsABackslashBeforeEachSpecialByteAndLeavesEveryOtherByteAsItIs) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const std::string text(1, static_cast<char>(byte));
    std::string expected = text;
    if (SPECIAL_BYTES.find(text) != std::string::npos) expected = "\\" + text;
    if (byte == '\n') expected = "'\n'";
    EXPECT_EQ(sh_quote(text), expected);
  }
}

TEST(ShQuoteTest, QuotesWordsByteForByte) {
  const std::pair<std::string, std::string> examples[] = {
      {"/var/www/a b", "/var/www/a\\ b"},
      {"it's", "it\\'s"},
      {"$HOME", "\\$HOME"},
      {"a*b", "a\\*b"},
      {"x=y", "x=y"},
      {"a,b", "a,b"},
      {"", ""},
      {"two\n\nlines\n", "two'\n''\n'lines'\n'"},
      {"!{}=%,^@\r", "!{}=%,^@\r"},
      {"na\xC3\xAFve \xFF", "na\xC3\xAFve\\ \xFF"},
      {std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const auto& [text, quoted] : examples) {
    SCOPED_TRACE(text);
    EXPECT_EQ(sh_quote(text), quoted);
  }
}

TEST(ShQuoteTest, MakesAWordThatTheShellReadsBackAsTheSameBytes) {
  for (const std::string& text :
       {allBytes(), std::string("\nline 1\nline 2; $(id) `id` > x\n"), std::string("\t"),
        std::string("~root"), std::string("#no comment"), std::string("*")}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(throughShell(sh_quote(text)), "1/" + text);
  }
}

TEST(ShQuoteTest, LetsAnEmptyWordVanish) {
  EXPECT_EQ(throughShell(sh_quote("")), "0/");
}

TEST(BraceExpansionTest, IsSeenWhereAShellMightExpandTheWord) {
  for (const char* word : {"{a,b}", "x{a,b}y", "{,}", "{a,{b,c}}", "{1..3}", "{{a,b}", "a{b}{c,d}",
                           "{a..c..2}", "{..}", "{a}..{b}"}) {
    EXPECT_TRUE(hasBraceExpansion(word)) << word;
  }
  for (const char* word : {"", "plain", "{}", "{a}", "!{}=%,^@", "},{", "a,b", "}a,b{", "{a}{b}",
                           "{a,b", "a..b}", "{", "{a.b}"}) {
    EXPECT_FALSE(hasBraceExpansion(word)) << word;
  }
}

TEST(CheckShellArgTest, AcceptsExactlyTheBytesThatNeedNoQuoting) {
  for (int byte = 1; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const std::string text = std::string("a") + static_cast<char>(byte);
    const bool plain =
        byte != '\n' && SPECIAL_BYTES.find(static_cast<char>(byte)) == std::string::npos;
    EXPECT_EQ(check_shell_arg_nothrow(text.c_str()), plain ? 1 : 0);
    EXPECT_EQ(whatOf<std::runtime_error>([&] { check_shell_arg(text); }),
              plain ? "no exception" : "Internal error: bad escape_chars value");
  }
}

TEST(CheckShellArgTest, AcceptsNothingAtAll) {
  EXPECT_NO_THROW(check_shell_arg(""));
  EXPECT_EQ(check_shell_arg_nothrow(""), 1);
  EXPECT_EQ(check_shell_arg_nothrow(nullptr), 1);
}
