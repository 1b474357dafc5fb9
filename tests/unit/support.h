#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <log4cpp/StringQueueAppender.hh>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commons/unique_fd.h"

/// Helpers for the unit tests. These run as root in a private world (see tests/private-world):
/// /mnt, /etc and /dev are throw-away.

// --- Files ---

/// A new directory, open to every account; removed with everything in it.
class ScopedTempDir {
 public:
  ScopedTempDir();
  ~ScopedTempDir();
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;

  const std::string& path() const { return path_; }
  /// The path of an entry in it.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A tmpfs of `sizeBytes` (whole pages) at the existing directory `path`, for as long
/// as it lives.
class ScopedTmpfs {
 public:
  ScopedTmpfs(std::string path, std::uint64_t sizeBytes);
  ~ScopedTmpfs();
  ScopedTmpfs(const ScopedTmpfs&) = delete;
  ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

 private:
  std::string path_;
};

void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);
/// The names in a directory, sorted.
std::vector<std::string> entriesOf(const std::string& directory);
bool exists(const std::string& path);
/// Owner, group and permission bits in octal, as in "20000:20000 600"; symbolic
/// links are not followed. The system's error text when there is nothing.
std::string ownerAndMode(const std::string& path);

/// Replaces the content of a file of the product, or of the host's configuration, for as long as it
/// lives. The file need not exist.
class ScopedFile {
 public:
  ScopedFile(std::string path, const std::string& text);
  ~ScopedFile();
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;

 private:
  std::string path_;
  bool existed_;
  std::string oldText_;
};

// --- Processes ---

/// The service account of the private world.
constexpr uid_t QRVADM = 20000;
/// An account without any privilege.
constexpr uid_t PLAIN = 20001;

/// Runs the rest of the test in a process whose process-wide state is still untouched: this
/// program, started anew for this one test, with `environment` (whole "NAME=value" entries) added
/// in front. Its failures are this test's failures.
///
///   TEST(...) {
///     IN_FRESH_PROCESS();
///     ...
///   }
///
/// A fixture is set up in both processes, so it must not use anything that can exist only once.
#define IN_FRESH_PROCESS(...)                                             \
  do {                                                                    \
    if (ranInFreshProcess(std::vector<std::string>{__VA_ARGS__})) return; \
  } while (false)

/// True after it ran the present test in a fresh process; false in that process.
bool ranInFreshProcess(const std::vector<std::string>& environment);

/// Runs `body` in a forked child, so that its effects do not touch this process: it may give up
/// privileges or break a stream. Its failures are this test's failures.
void inChild(const std::function<void()>& body);

/// Gives up the rights of root for good. Must be called inside `inChild`.
void becomePlainUser();

/// Waits until `condition` holds; false when that takes longer than ten seconds.
bool eventually(const std::function<bool()>& condition);

// --- What is written past the results ---

/// Collects what this process and its children write to a standard stream.
class CapturedStream {
 public:
  explicit CapturedStream(int fd);
  ~CapturedStream();
  CapturedStream(const CapturedStream&) = delete;
  CapturedStream& operator=(const CapturedStream&) = delete;

  /// All that was written until now.
  std::string text() const;

 private:
  int fd_;
  UniqueFd saved_;
  UniqueFd file_;
};

/// The system log of this world: no other program listens at /dev/log.
class SystemLog {
 public:
  SystemLog();
  ~SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

  /// The lines since the last call, whole ("<11>... sondrel[123]: text").
  std::vector<std::string> rawLines();
  /// The texts of those lines.
  std::vector<std::string> lines();

 private:
  UniqueFd socket_;
};

/// Collects what is logged to a category and those below it, as
/// "PRIORITY category: text". The empty name stands for the root.
class CategoryRecorder {
 public:
  explicit CategoryRecorder(const std::string& category, int priority = 600);
  ~CategoryRecorder();
  CategoryRecorder(const CategoryRecorder&) = delete;
  CategoryRecorder& operator=(const CategoryRecorder&) = delete;

  /// The lines since the last call.
  std::vector<std::string> lines();

 private:
  std::string category_;
  int oldPriority_;
  log4cpp::StringQueueAppender appender_;
};

// --- Errors ---

/// The what() of the exception that `body` throws; another text when it throws nothing or something
/// else than an `Error`.
template <class Error>
std::string whatOf(const std::function<void()>& body) {
  try {
    body();
  } catch (const Error& e) {
    return e.what();
  } catch (const std::exception& e) {
    return std::string("another exception: ") + e.what();
  }
  return "no exception";
}

/// The document that libxml2 saves for this root element.
inline std::string savedXml(const std::string& root) {
  return "<?xml version=\"1.0\"?>\n" + root + "\n";
}
