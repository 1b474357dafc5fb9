#include <sys/stat.h>
#include <unistd.h>

#include "commons/commons.h"
#include "commons/umask_guard.h"
#include "support.h"

TEST(CheckInputFileTest, AcceptsRegularFilesOnlyThroughSymbolicLinksAsWell) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "text");
  ASSERT_EQ(mkdir((dir / "directory").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(symlink("file", (dir / "to-file").c_str()), 0);
  ASSERT_EQ(symlink("directory", (dir / "to-directory").c_str()), 0);
  ASSERT_EQ(symlink("missing", (dir / "to-nothing").c_str()), 0);
  const std::pair<const char*, bool> names[] = {
      {"file", true},        {"to-file", true},  {"directory", false},
      {"fifo", false},       {"/../", false},    {"to-directory", false},
      {"to-nothing", false}, {"missing", false}, {"file/x", false}};
  for (const auto& [name, accepted] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(check_input_file((dir / name).c_str()), accepted);
    EXPECT_EQ(check_input_file((dir / name).c_str(), true), accepted);
  }
}

TEST(CheckInputFileTest, RefusesNoNameAtAll) {
  EXPECT_FALSE(check_input_file(nullptr));
  EXPECT_FALSE(check_input_file(""));
}

TEST(PathTest, IsSplitAtTheLastSlash) {
  struct Example {
    std::string path, directory, name;
  };
  const Example examples[] = {{"/a/b", "/a", "b"}, {"b", "", "b"},      {"/b", "", "b"},
                              {"a/b/", "a/b", ""}, {"a//b", "a/", "b"}, {"", "", ""}};
  for (const Example& example : examples) {
    SCOPED_TRACE(example.path);
    EXPECT_EQ(getPath(example.path), example.directory);
    EXPECT_EQ(getFileNameFromPath(example.path), example.name);
  }
}

TEST(UmaskGuardTest, RestoresTheMaskAlsoWhenAnExceptionPasses) {
  const mode_t before = umask(027);
  try {
    const UmaskGuard guard(077);
    const mode_t inside = umask(077);
    EXPECT_EQ(inside, 077u);
    throw std::runtime_error("passes");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(umask(before), 027u);
}
