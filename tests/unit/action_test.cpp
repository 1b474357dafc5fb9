#include "sondrel/action.h"

#include <signal.h>
#include <unistd.h>

#include "support.h"

TEST(ArgsBuilderTest, QuotesEachWordAndPutsOneBlankBetween) {
  const ArgsBuilder line = ArgsBuilder("rm it") << "-rf"
                                                << "/a b/it's\n$HOME";
  EXPECT_EQ(line.str(), "rm\\ it -rf /a\\ b/it\\'s'\n'\\$HOME");
}

TEST(ArgsBuilderTest, AppendsABlankForAnEmptyWord) {
  EXPECT_EQ((ArgsBuilder("a") << ""
                              << "b")
                .str(),
            "a  b");
}

TEST(UpdateStatusTest, DoesNothingWithoutAnActionThatDumps) {
  update_status(SIGALRM);
  EXPECT_EQ(alarm(0), 0u);
}
