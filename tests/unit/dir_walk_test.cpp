#include "commons/RecursiveDirIterator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "support.h"

namespace {

/// A tree with a file at the top, nested directories and odd names.
class DirWalkTest : public testing::Test {
 protected:
  DirWalkTest() {
    for (const char* directory : {"tree", "tree/sub", "tree/sub/deep", "tree/empty", "elsewhere"}) {
      mkdir((dir_ / directory).c_str(), 0755);
    }
    for (const char* file :
         {"tree/top", "tree/sub/a b", "tree/sub/deep/\n\xC3\xA4'", "elsewhere/file"}) {
      writeFile(dir_ / file, "");
    }
    tree_ = dir_ / "tree";
  }

  /// Notes each pair, with the local path relative to the tree, and enters every
  /// directory but those named `closed`.
  DirVisitor noting(const std::string& closed = "") {
    return [this, closed](const boost::filesystem::path& local,
                          const boost::filesystem::path& remote) {
      visits_.push_back(local.string().substr(dir_.path().size() + 1) + " -> " + remote.string());
      return local.filename() != closed;
    };
  }

  ScopedTempDir dir_;
  std::string tree_;
  std::vector<std::string> visits_;
};

}  // namespace

TEST_F(DirWalkTest, VisitsTheStartAndEverythingInItWithTheMatchingRemotePath) {
  recursive_dir_walk_sync(tree_, "/remote/dir", noting());
  EXPECT_THAT(visits_, testing::UnorderedElementsAre(
                           "tree -> /remote/dir", "tree/top -> /remote/dir/top",
                           "tree/sub -> /remote/dir/sub", "tree/sub/a b -> /remote/dir/sub/a b",
                           "tree/sub/deep -> /remote/dir/sub/deep",
                           "tree/sub/deep/\n\xC3\xA4' -> /remote/dir/sub/deep/\n\xC3\xA4'",
                           "tree/empty -> /remote/dir/empty"));
  EXPECT_EQ(visits_.front(), "tree -> /remote/dir");
  const auto at = [&](const std::string& text) {
    return std::find_if(visits_.begin(), visits_.end(),
                        [&](const std::string& visit) { return visit.rfind(text, 0) == 0; });
  };
  EXPECT_LT(at("tree/sub ->"), at("tree/sub/a b"));
  EXPECT_LT(at("tree/sub/deep ->"), at("tree/sub/deep/\n"));
}

TEST_F(DirWalkTest, HasADotAsTheRemoteSideByDefault) {
  recursive_dir_walk(tree_ + "/sub", noting());
  EXPECT_THAT(visits_, testing::UnorderedElementsAre(
                           "tree/sub -> .", "tree/sub/a b -> ./a b", "tree/sub/deep -> ./deep",
                           "tree/sub/deep/\n\xC3\xA4' -> ./deep/\n\xC3\xA4'"));
}

TEST_F(DirWalkTest, DoesNotEnterADirectoryThatTheVisitorRefuses) {
  recursive_dir_walk_sync(tree_, "r", noting("sub"));
  EXPECT_THAT(visits_, testing::UnorderedElementsAre("tree -> r", "tree/top -> r/top",
                                                     "tree/sub -> r/sub", "tree/empty -> r/empty"));
  visits_.clear();
  recursive_dir_walk_sync(tree_, "r", noting("tree"));
  EXPECT_THAT(visits_, testing::ElementsAre("tree -> r"));
}

TEST_F(DirWalkTest, VisitsOnlyTheStartWhenThatIsNoDirectory) {
  recursive_dir_walk_sync(tree_ + "/top", "r", noting());
  EXPECT_THAT(visits_, testing::ElementsAre("tree/top -> r"));
}

TEST_F(DirWalkTest, FollowsSymbolicLinksToDirectories) {
  ASSERT_EQ(symlink("../../elsewhere", (tree_ + "/empty/link").c_str()), 0);
  recursive_dir_walk_sync(tree_ + "/empty", "r", noting());
  EXPECT_THAT(visits_, testing::ElementsAre("tree/empty -> r", "tree/empty/link -> r/link",
                                            "tree/empty/link/file -> r/link/file"));
}

TEST_F(DirWalkTest, DoesNotFollowALinkThatLeadsBackToADirectoryAboveIt) {
  ASSERT_EQ(symlink(".", (tree_ + "/sub/deep/again").c_str()), 0);
  ASSERT_EQ(symlink("../..", (tree_ + "/sub/deep/up").c_str()), 0);
  // The same directory is visited twice, because neither path is below the other.
  ASSERT_EQ(symlink("../empty", (tree_ + "/sub/beside").c_str()), 0);
  CategoryRecorder log("k.RecursiveDirIterator");
  recursive_dir_walk_sync(tree_, "r", noting());
  EXPECT_THAT(
      visits_,
      testing::UnorderedElementsAre(
          "tree -> r", "tree/top -> r/top", "tree/sub -> r/sub", "tree/sub/a b -> r/sub/a b",
          "tree/sub/beside -> r/sub/beside", "tree/sub/deep -> r/sub/deep",
          "tree/sub/deep/\n\xC3\xA4' -> r/sub/deep/\n\xC3\xA4'", "tree/empty -> r/empty"));
  const std::string leftOut = " leads back to a directory above it and is left out";
  EXPECT_THAT(log.lines(),
              testing::UnorderedElementsAre(
                  "WARN k.RecursiveDirIterator: " + tree_ + "/sub/deep/again" + leftOut,
                  "WARN k.RecursiveDirIterator: " + tree_ + "/sub/deep/up" + leftOut));
}

TEST_F(DirWalkTest, VisitsALinkThatLeadsToItselfAsAFile) {
  ASSERT_EQ(symlink("link", (tree_ + "/empty/link").c_str()), 0);
  recursive_dir_walk_sync(tree_ + "/empty", "r", noting());
  EXPECT_THAT(visits_, testing::ElementsAre("tree/empty -> r", "tree/empty/link -> r/link"));
}

TEST_F(DirWalkTest, RefusesAnEmptyVisitor) {
  EXPECT_THROW(recursive_dir_walk_sync(tree_, "r", DirVisitor()), boost::bad_function_call);
  EXPECT_THROW(recursive_dir_walk(tree_, DirVisitor()), boost::bad_function_call);
}

TEST_F(DirWalkTest, EndsWithTheExceptionOfTheVisitor) {
  int visits = 0;
  EXPECT_EQ(whatOf<std::runtime_error>([&] {
              recursive_dir_walk(tree_, [&](const auto&, const auto&) -> bool {
                if (++visits == 2) throw std::runtime_error("second visit");
                return true;
              });
            }),
            "second visit");
  EXPECT_EQ(visits, 2);
}
