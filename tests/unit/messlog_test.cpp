#include "hostlib/messlog.h"

#include <unistd.h>

#include "support.h"

TEST(MesslogTest, WritesALineAtErrorPriorityWithTheProgramAndItsPid) {
  SystemLog systemLog;
  messlog2("text");
  const std::string pid = std::to_string(getpid());
  // 11: facility "user", priority "error"; then the time.
  EXPECT_THAT(systemLog.rawLines(),
              testing::ElementsAre(testing::AllOf(
                  testing::StartsWith("<11>"), testing::EndsWith(" sondrel[" + pid + "]: text"))));
}

TEST(MesslogTest, DropsLineEndsAtTheEndAndTakesTheTextAsItIs) {
  SystemLog systemLog;
  const std::pair<std::string, std::string> texts[] = {
      {"text\n", "text"}, {"text\n\n", "text"}, {"100%s %n", "100%s %n"}, {"\n", ""}, {"", ""}};
  for (const auto& [text, line] : texts) {
    messlog2(text);
    EXPECT_THAT(systemLog.lines(), testing::ElementsAre(line));
  }
}

TEST(MesslogTest, LeavesNoDescriptorOpen) {
  IN_FRESH_PROCESS();
  const SystemLog systemLog;
  const std::size_t before = entriesOf("/proc/self/fd").size();
  messlog2("text");
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

TEST(MesslogTest, DoesNotFailWithoutASystemLog) {
  messlog2("text");
  SystemLog systemLog;
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}
