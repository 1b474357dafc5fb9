#include <cerrno>

#include "commons/commons.h"
#include "support.h"

namespace {

/// The template that initTempName makes, with its terminating zero byte.
std::string templateFor(const std::string& dir, const std::string& prefix) {
  std::vector<char> buffer = {'o', 'l', 'd'};
  initTempName(buffer, dir, prefix);
  EXPECT_GE(buffer.capacity(), 4096u);
  return std::string(buffer.begin(), buffer.end());
}

std::string terminated(const std::string& text) {
  return text + '\0';
}

}  // namespace

TEST(TempNameTest, HasOneSlashBetweenDirectoryAndPrefix) {
  EXPECT_EQ(templateFor("/dir", "name"), terminated("/dir/nameXXXXXX"));
  EXPECT_EQ(templateFor("/dir/", "name"), terminated("/dir/nameXXXXXX"));
  EXPECT_EQ(templateFor("/dir//", ""), terminated("/dir//XXXXXX"));
  EXPECT_EQ(templateFor("relative", "name"), terminated("relative/nameXXXXXX"));
  EXPECT_EQ(templateFor("/", "name"), terminated("/nameXXXXXX"));
}

TEST(TempNameTest, LiesInTheDirectoryOfTheProductUnlessAnotherIsConfigured) {
  IN_FRESH_PROCESS();
  const ScopedFile configuration("/etc/qrv/qrv.conf", "PRODUCT_ROOT_D /srv/product\n");
  EXPECT_EQ(templateFor("", "name"), terminated("/srv/product/DTM/tmp/nameXXXXXX"));
  EXPECT_EQ(templateFor("/dir", "name"), terminated("/dir/nameXXXXXX"));
}

TEST(TempNameTest, LiesInTheConfiguredDirectory) {
  IN_FRESH_PROCESS();
  const ScopedFile configuration("/etc/qrv/qrv.conf", "DUMP_TMP_D /srv/dumps/\n");
  EXPECT_EQ(templateFor("", "name"), terminated("/srv/dumps/nameXXXXXX"));
  EXPECT_EQ(templateFor("/dir", "name"), terminated("/dir/nameXXXXXX"));
}

TEST(TempFileTest, IsNewEmptyAndPrivate) {
  const ScopedTempDir dir;
  const std::size_t descriptors = entriesOf("/proc/self/fd").size();
  const std::string first = DTM_getTempFileName(dir.path(), "name");
  const std::string second = DTM_getTempFileName(dir.path() + "/", "name");
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), descriptors);
  EXPECT_NE(first, second);
  for (const std::string& name : {first, second}) {
    EXPECT_THAT(name, testing::StartsWith(dir / "name"));
    EXPECT_EQ(name.size(), (dir / "nameXXXXXX").size());
    EXPECT_EQ(readFile(name), "");
    EXPECT_EQ(ownerAndMode(name), "0:0 600");
  }
}

TEST(TempFileTest, LiesInTheDirectoryOfTheProduct) {
  const std::string name = DTM_getTempFileName("", "unit");
  EXPECT_THAT(name, testing::StartsWith("/mnt/product/DTM/tmp/unit"));
  EXPECT_EQ(ownerAndMode(name), "0:0 600");
  std::remove(name.c_str());
}

TEST(TempFileTest, BelongsToTheRunningUser) {
  const ScopedTempDir dir;
  inChild([&] {
    becomePlainUser();
    EXPECT_EQ(ownerAndMode(DTM_getTempFileName(dir.path(), "name")), "20001:20001 600");
  });
}

TEST(TempFileTest, CannotBeMadeInADirectoryThatIsMissingOrClosed) {
  EXPECT_EQ(whatOf<Exc<&CantCreateTempFile>>([] { DTM_getTempFileName("/mnt/missing/", "name"); }),
            "Can not create temporary file with the template '/mnt/missing/nameXXXXXX': "
            "No such file or directory.");
  inChild([] {
    becomePlainUser();
    EXPECT_EQ(whatOf<Exc<&CantCreateTempFile>>([] { DTM_getTempFileName("/etc", "name"); }),
              "Can not create temporary file with the template '/etc/nameXXXXXX': "
              "Permission denied.");
  });
}
