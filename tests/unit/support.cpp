#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <log4cpp/Category.hh>
#include <log4cpp/PatternLayout.hh>
#include <sstream>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace fs = boost::filesystem;

namespace {

/// An exception and not a failed expectation: failing set-up says nothing about the tested code.
void require(bool succeeded, const std::string& what) {
  if (!succeeded) throw std::runtime_error(what + ": " + std::strerror(errno));
}

int waitFor(pid_t child) {
  int status = 0;
  require(waitpid(child, &status, 0) == child, "waitpid");
  return status;
}

[[noreturn]] void endChild() {
  std::cout.flush();
  std::fflush(stdout);
  bool failed = testing::Test::HasFailure();
#if defined(__SANITIZE_ADDRESS__)
  failed = __lsan_do_recoverable_leak_check() != 0 || failed;
#endif
  _exit(failed ? 1 : 0);
}

}  // namespace

ScopedTempDir::ScopedTempDir() {
  char name[] = "/mnt/unit-XXXXXX";
  require(mkdtemp(name) != nullptr, "mkdtemp");
  path_ = name;
  require(chmod(name, 0777) == 0, "chmod");
}

ScopedTempDir::~ScopedTempDir() {
  boost::system::error_code ignored;
  fs::remove_all(path_, ignored);
}

ScopedTmpfs::ScopedTmpfs(std::string path, std::uint64_t sizeBytes) : path_(std::move(path)) {
  const std::string options = "mode=777,size=" + std::to_string(sizeBytes);
  require(mount("unit", path_.c_str(), "tmpfs", 0, options.c_str()) == 0, "mount");
}

ScopedTmpfs::~ScopedTmpfs() {
  umount2(path_.c_str(), MNT_DETACH);
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  require(file.good(), "writing " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  require(file.is_open(), "reading " + path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> entriesOf(const std::string& directory) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::string ownerAndMode(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return std::strerror(errno);
  std::ostringstream text;
  text << status.st_uid << ":" << status.st_gid << " " << std::oct << (status.st_mode & 07777);
  return text.str();
}

ScopedFile::ScopedFile(std::string path, const std::string& text)
    : path_(std::move(path)), existed_(exists(path_)), oldText_(existed_ ? readFile(path_) : "") {
  writeFile(path_, text);
}

ScopedFile::~ScopedFile() {
  boost::system::error_code ignored;
  fs::remove_all(path_, ignored);
  if (existed_) writeFile(path_, oldText_);
}

bool ranInFreshProcess(const std::vector<std::string>& environment) {
  const char* const marker = "UNIT_TEST_FRESH_PROCESS";
  if (getenv(marker)) return false;
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();

  std::vector<std::string> entries = environment;
  entries.push_back(std::string(marker) + "=1");
  for (char** entry = environ; *entry; ++entry) {
    // The part of the tests that runs here would not have the one that runs there.
    if (std::strncmp(*entry, "GTEST_", 6) != 0) entries.push_back(*entry);
  }
  std::vector<char*> envp;
  for (std::string& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  std::cout.flush();
  const pid_t child = fork();
  require(child >= 0, "fork");
  if (child == 0) {
    execle("/proc/self/exe", "unit_tests", filter.c_str(), "--gtest_brief=1", nullptr, envp.data());
    _exit(127);
  }
  EXPECT_EQ(waitFor(child), 0) << "the test failed in its own process";
  return true;
}

void inChild(const std::function<void()>& body) {
  std::cout.flush();
  const pid_t child = fork();
  require(child >= 0, "fork");
  if (child == 0) {
    try {
      body();
    } catch (const std::exception& e) {
      ADD_FAILURE() << "the child threw: " << e.what();
    }
    endChild();
  }
  EXPECT_EQ(waitFor(child), 0) << "the child process failed";
}

void becomePlainUser() {
  require(setgid(PLAIN) == 0 && setuid(PLAIN) == 0, "setuid");
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

CapturedStream::CapturedStream(int fd)
    : fd_(fd), saved_(dup(fd)), file_(open("/mnt", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600)) {
  std::cout.flush();
  require(saved_ && file_ && dup2(file_.get(), fd_) == fd_, "capturing a stream");
}

CapturedStream::~CapturedStream() {
  std::cout.flush();
  dup2(saved_.get(), fd_);
}

std::string CapturedStream::text() const {
  std::cout.flush();
  struct stat status;
  require(fstat(file_.get(), &status) == 0, "fstat");
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t got = pread(file_.get(), text.data(), text.size(), 0);
  require(got == status.st_size, "pread");
  return text;
}

SystemLog::SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  require(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
          "bind to /dev/log");
  // Children of other accounts write to it as well.
  require(chmod("/dev/log", 0666) == 0, "chmod");
}

SystemLog::~SystemLog() {
  unlink("/dev/log");
}

std::vector<std::string> SystemLog::rawLines() {
  std::vector<std::string> lines;
  char line[8192];
  // A datagram is in the queue as soon as its sender has sent it.
  for (ssize_t got; (got = recv(socket_.get(), line, sizeof line, MSG_DONTWAIT)) >= 0;) {
    lines.emplace_back(line, static_cast<std::size_t>(got));
  }
  return lines;
}

std::vector<std::string> SystemLog::lines() {
  std::vector<std::string> texts = rawLines();
  for (std::string& text : texts) text.erase(0, text.find("]: ") + 3);
  return texts;
}

CategoryRecorder::CategoryRecorder(const std::string& category, int priority)
    : category_(category),
      oldPriority_(log4cpp::Category::getInstance(category).getPriority()),
      appender_("recorder of " + category) {
  auto layout = std::make_unique<log4cpp::PatternLayout>();
  layout->setConversionPattern("%p %c: %m");
  appender_.setLayout(layout.release());
  log4cpp::Category::getInstance(category_).addAppender(appender_);
  log4cpp::Category::getInstance(category_).setPriority(priority);
}

CategoryRecorder::~CategoryRecorder() {
  log4cpp::Category::getInstance(category_).removeAppender(&appender_);
  log4cpp::Category::getInstance(category_).setPriority(oldPriority_);
}

std::vector<std::string> CategoryRecorder::lines() {
  std::vector<std::string> lines;
  while (appender_.queueSize() > 0) lines.push_back(appender_.popMessage());
  return lines;
}
