#include "commons/content_directory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "commons/ExSystemError.h"
#include "commons/commons.h"
#include "commons/umask_guard.h"
#include "support.h"

namespace {

class ContentDirectoryTest : public testing::Test {
 protected:
  ContentDirectoryTest() { make_dir(dir_ / "content", QRVADM, QRVADM, 0755); }

  std::string path(const std::string& name) const { return directory_.pathOf(name); }

  /// Writes the file; true when every byte arrived.
  bool write(const std::string& name, const std::string& text) const {
    OutputFile file = directory_.create(name);
    file.stream() << text;
    return file.syncAndClose();
  }
  std::string failureOf(const std::string& name) const {
    return whatOf<SystemError>([&] { directory_.create(name); });
  }
  /// The content of the file, or "(none)" when it must not be opened.
  std::string read(const std::string& name) const {
    const UniqueFd file = directory_.openExisting(name);
    if (!file) return "(none)";
    char text[64];
    const ssize_t got = ::read(file.get(), text, sizeof text);
    return std::string(text, got < 0 ? 0 : static_cast<std::size_t>(got));
  }
  void link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(symlink(target.c_str(), path(name).c_str()), 0);
  }

  ScopedTempDir dir_;
  ContentDirectory directory_{dir_ / "content", QRVADM, QRVADM};
};

}  // namespace

TEST_F(ContentDirectoryTest, MakesFilesAndTheirDirectoriesWhateverTheUmask) {
  {
    const UmaskGuard mask(077);
    EXPECT_TRUE(write("a/b/file", "text"));
    EXPECT_TRUE(write("top", ""));
    EXPECT_EQ(umask(077), 077u);
  }
  EXPECT_EQ(readFile(path("a/b/file")), "text");
  EXPECT_EQ(readFile(path("top")), "");
  EXPECT_EQ(ownerAndMode(path("a")), "20000:20000 755");
  EXPECT_EQ(ownerAndMode(path("a/b")), "20000:20000 755");
  EXPECT_EQ(ownerAndMode(path("a/b/file")), "0:0 644");
  EXPECT_EQ(ownerAndMode(path("top")), "0:0 644");
}

TEST_F(ContentDirectoryTest, LeavesOwnerAndModeOfWhatExists) {
  ASSERT_EQ(make_dir(path("a"), 20001, 20002, 0711), 0);
  ASSERT_TRUE(write("a/file", "a long old text"));
  ASSERT_EQ(chmod(path("a/file").c_str(), 0600), 0);
  ASSERT_EQ(chown(path("a/file").c_str(), 20001, 20002), 0);
  EXPECT_TRUE(write("a/file", "new"));
  EXPECT_EQ(readFile(path("a/file")), "new");
  EXPECT_EQ(ownerAndMode(path("a/file")), "20001:20002 600");
  EXPECT_EQ(ownerAndMode(path("a")), "20001:20002 711");
}

TEST_F(ContentDirectoryTest, TakesNamesOfAnyCharacters) {
  const std::string deep = [] {
    std::string name;
    for (int i = 0; i < 50; ++i) name += "directory/";
    return name + "file";
  }();
  for (const std::string& name : {std::string("a b/it's"), std::string("line\nfeed/\xC3\xA4\xFF"),
                                  std::string("..a/...b/.c"), std::string("-rf/*"), deep}) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(write(name, "text"));
    EXPECT_EQ(readFile(path(name)), "text");
    EXPECT_EQ(read(name), "text");
  }
}

TEST_F(ContentDirectoryTest, TakesSeveralSlashesForOne) {
  ASSERT_NO_THROW(write("a//b", "text"));
  EXPECT_EQ(readFile(path("a/b")), "text");
  EXPECT_EQ(read("a//b"), "text");
}

TEST_F(ContentDirectoryTest, LeavesNoDescriptorOpen) {
  const std::size_t before = entriesOf("/proc/self/fd").size();
  EXPECT_TRUE(write("a/b/c", "text"));
  EXPECT_EQ(read("a/b/c"), "text");
  EXPECT_THROW(directory_.create("a/b/c/d"), SystemError);
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

TEST_F(ContentDirectoryTest, OpensExistingRegularFilesOnly) {
  ASSERT_TRUE(write("a/file", "text"));
  EXPECT_EQ(read("a/file"), "text");
  EXPECT_EQ(read("a/missing"), "(none)");
  EXPECT_EQ(read("missing/file"), "(none)");
  EXPECT_EQ(read("a"), "(none)");
  EXPECT_EQ(read("a/file/x"), "(none)");
  EXPECT_FALSE(exists(path("missing")));
}

TEST_F(ContentDirectoryTest, OpensFilesWhoseSizeOrTimeIsBeyond32Bits) {
  constexpr std::int64_t BEYOND = std::int64_t{5} << 30;
  ASSERT_TRUE(write("large", "text"));
  ASSERT_EQ(truncate(path("large").c_str(), static_cast<off_t>(BEYOND)), 0);
  EXPECT_EQ(read("large").substr(0, 4), "text");
  ASSERT_TRUE(write("late", "text"));
  const timespec time = {static_cast<std::time_t>(BEYOND), 0};
  ASSERT_EQ(time.tv_sec, BEYOND);
  const timespec times[] = {time, time};
  ASSERT_EQ(utimensat(AT_FDCWD, path("late").c_str(), times, 0), 0);
  EXPECT_EQ(read("late"), "text");
  EXPECT_TRUE(write("late", "new"));
}

TEST_F(ContentDirectoryTest, RefusesASymbolicLinkInTheFilesPlace) {
  writeFile(dir_ / "outside", "untouched");
  link("../outside", "link");
  link("../not-there", "dangling");
  for (const char* name : {"link", "dangling"}) {
    EXPECT_EQ(failureOf(name), path(name) + ": Too many levels of symbolic links");
    EXPECT_EQ(read(name), "(none)");
  }
  EXPECT_EQ(readFile(dir_ / "outside"), "untouched");
  EXPECT_FALSE(exists(dir_ / "not-there"));
}

TEST_F(ContentDirectoryTest, RefusesASymbolicLinkAtEachLevelOfDirectories) {
  ASSERT_EQ(make_dir(dir_ / "outside/b/c", 0, 0, 0755), 0);
  writeFile(dir_ / "outside/b/c/file", "untouched");
  ASSERT_EQ(make_dir(path("second"), 0, 0, 0755), 0);
  ASSERT_EQ(make_dir(path("third/b"), 0, 0, 0755), 0);
  link("../outside", "first");
  link("../../outside/b", "second/b");
  link("../../../outside/b/c", "third/b/c");
  link("../not-there", "dangling");
  for (const char* directory : {"first", "second", "third"}) {
    SCOPED_TRACE(directory);
    const std::string name = std::string(directory) + "/b/c/file";
    EXPECT_EQ(readFile(path(name)), "untouched");
    EXPECT_THROW(directory_.create(name), SystemError);
    EXPECT_THROW(directory_.create(std::string(directory) + "/b/c/new"), SystemError);
    EXPECT_EQ(read(name), "(none)");
  }
  EXPECT_THROW(directory_.create("dangling/file"), SystemError);
  EXPECT_THAT(entriesOf(dir_ / "outside/b/c"), testing::ElementsAre("file"));
  EXPECT_EQ(readFile(dir_ / "outside/b/c/file"), "untouched");
  EXPECT_FALSE(exists(dir_ / "not-there"));
}

TEST_F(ContentDirectoryTest, RefusesWhateverElseIsInTheFilesPlaceWithoutWaiting) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0666), 0);
  ASSERT_EQ(mkdir(path("directory").c_str(), 0755), 0);
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path("socket").c_str());
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  EXPECT_EQ(failureOf("fifo"), path("fifo") + ": No such device or address");
  EXPECT_EQ(failureOf("directory"), path("directory") + ": Is a directory");
  EXPECT_EQ(failureOf("socket"), path("socket") + ": No such device or address");
  for (const char* name : {"fifo", "directory", "socket"}) EXPECT_EQ(read(name), "(none)") << name;

  const UniqueFd reader(open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(failureOf("fifo"), path("fifo") + ": Invalid argument");
}

TEST_F(ContentDirectoryTest, RefusesAFileThatHasAnotherNameToo) {
  writeFile(dir_ / "outside", "untouched");
  ASSERT_EQ(::link((dir_ / "outside").c_str(), path("hard").c_str()), 0);
  EXPECT_EQ(failureOf("hard"), path("hard") + ": Too many links");
  EXPECT_EQ(readFile(dir_ / "outside"), "untouched");
  // Reading it is allowed: an earlier run may have fetched it.
  EXPECT_EQ(read("hard"), "untouched");
}

TEST_F(ContentDirectoryTest, RefusesANameThatIsTooLongForTheSystemBeforeAnythingIsMade) {
  std::string name = "first";
  while (path(name).size() < 4096) name += "/" + std::string(50, 'n');
  EXPECT_EQ(failureOf(name), path(name) + ": File name too long");
  EXPECT_FALSE(exists(path("first")));
  // The longest possible path has 4095 bytes.
  name.resize(name.size() - (path(name).size() - 4095));
  EXPECT_TRUE(write(name, "text"));
  EXPECT_EQ(readFile(path(name)), "text");
}

TEST_F(ContentDirectoryTest, TruncatesAnOlderFileAtTheFirstByteOrWhenItIsClosed) {
  ASSERT_TRUE(write("file", "a long old text"));
  { const OutputFile abandoned = directory_.create("file"); }
  EXPECT_EQ(readFile(path("file")), "a long old text");
  {
    OutputFile begun = directory_.create("file");
    begun.stream() << "new";
  }
  EXPECT_EQ(readFile(path("file")), "new");
  ASSERT_TRUE(write("file", ""));
  EXPECT_EQ(readFile(path("file")), "");
}

TEST_F(ContentDirectoryTest, KnowsAFileThatIsNoLongerInItsPlace) {
  const auto isInPlaceAfter = [&](const std::function<void()>& change) {
    OutputFile file = directory_.create("a/b/file");
    const FileIdentity written = file.identity();
    file.stream() << "text";
    change();
    EXPECT_TRUE(file.syncAndClose());
    return directory_.isInPlace("a/b/file", written);
  };
  EXPECT_TRUE(isInPlaceAfter([] {}));
  EXPECT_FALSE(isInPlaceAfter([&] { unlink(path("a/b/file").c_str()); }));
  EXPECT_FALSE(isInPlaceAfter([&] { rename(path("a").c_str(), path("moved").c_str()); }));
  EXPECT_FALSE(isInPlaceAfter([&] {
    rename(path("a/b/file").c_str(), path("a/b/moved").c_str());
    writeFile(path("a/b/file"), "another");
  }));
}

TEST_F(ContentDirectoryTest, RefusesAFileInADirectoriesPlace) {
  ASSERT_TRUE(write("a/file", "text"));
  EXPECT_EQ(failureOf("a/file/x"), "file: Not a directory");
  EXPECT_EQ(failureOf("a/file/x/y"), "file: Not a directory");
  EXPECT_EQ(readFile(path("a/file")), "text");
}

TEST_F(ContentDirectoryTest, NamesTheDirectoryThatIsMissingItself) {
  const ContentDirectory missing(dir_ / "missing", QRVADM, QRVADM);
  EXPECT_EQ(whatOf<ExSystemError<ENOENT>>([&] { missing.create("file"); }),
            (dir_ / "missing") + ": No such file or directory");
  EXPECT_FALSE(missing.openExisting("file"));
}

TEST_F(ContentDirectoryTest, FailsWhenANewDirectoryCannotBeGivenAway) {
  const ContentDirectory open(dir_.path(), QRVADM, QRVADM);
  inChild([&] {
    becomePlainUser();
    EXPECT_EQ(whatOf<SystemError>([&] { open.create("mine/file"); }),
              "mine: Operation not permitted");
    EXPECT_EQ(whatOf<SystemError>([&] { directory_.create("file"); }),
              path("file") + ": Permission denied");
  });
}

TEST_F(ContentDirectoryTest, SeesAFullDisk) {
  const ScopedTmpfs fileSystem(dir_ / "content", 65536);
  EXPECT_FALSE(write("file", std::string(100000, 'x')));
}

TEST(UnsafeNameTest, IsEmptyAbsoluteADirectoryOrLeadsElsewhere) {
  const std::pair<std::string, std::string> names[] = {
      {"", "the name is empty"},
      {"/", "the name is absolute"},
      {"/etc/passwd", "the name is absolute"},
      {"a/", "the name ends in '/'"},
      {"a//", "the name ends in '/'"},
      {".", "the name has '.' as a component"},
      {"..", "the name has '..' as a component"},
      {"./a", "the name has '.' as a component"},
      {"../a", "the name has '..' as a component"},
      {"a/./b", "the name has '.' as a component"},
      {"a/../b", "the name has '..' as a component"},
      {"a/..", "the name has '..' as a component"},
      {"a/.", "the name has '.' as a component"},
      {std::string("a\0b", 3), "the name holds a zero byte"},
      {"a", ""},
      {"a/b c", ""},
      {"a//b", ""},
      {"...", ""},
      {"..a/b..", ""},
      {".hidden", ""},
      {"a\nb", ""},
      {" ", ""},
  };
  for (const auto& [name, reason] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(whyUnsafeName(name), reason);
  }
}
