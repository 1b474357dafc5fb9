#include "commons/cmd_line.h"

#include "support.h"

TEST(CmdLineTest, ShowsEachWordQuotedAndAnEmptyOneAsTwoSingleQuotes) {
  const std::pair<ArgList, std::string> examples[] = {
      {{}, ""},
      {{"ls"}, "ls"},
      {{"ls", "-l", "a b"}, "ls -l a\\ b"},
      {{"printf", "", "x", ""}, "printf '' x ''"},
      {{""}, "''"},
      {{"a\nb", "it's"}, "a'\n'b it\\'s"},
  };
  for (const auto& [args, line] : examples) {
    SCOPED_TRACE(line);
    EXPECT_EQ(CmdLine(args).getString(), line);
  }
}

TEST(CmdLineTest, TakesWordsOneAfterAnother) {
  CmdLine line({"chown"});
  line << "root"
       << "a b";
  EXPECT_THAT(line.args(), testing::ElementsAre("chown", "root", "a b"));
  EXPECT_EQ(line.getString(), "chown root a\\ b");
}
