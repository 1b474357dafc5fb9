#include <cerrno>
#include <cstring>

#include "commons/ExSystemError.h"
#include "support.h"

namespace {

template <int Code>
bool isOfType(const SystemError& e) {
  return dynamic_cast<const ExSystemError<Code>*>(&e) != nullptr;
}

/// The number of the specific type that is thrown, 0 for a plain SystemError.
int thrownType(int code) {
  try {
    throwSystemError("step failed", code);
  } catch (const SystemError& e) {
    EXPECT_EQ(e.code(), code ? code : errno);
    EXPECT_EQ(std::string(e.what()), std::string("step failed: ") + std::strerror(e.code()));
    if (isOfType<EPERM>(e)) return EPERM;
    if (isOfType<ENOENT>(e)) return ENOENT;
    if (isOfType<EINTR>(e)) return EINTR;
    if (isOfType<ECHILD>(e)) return ECHILD;
    if (isOfType<EAGAIN>(e)) return EAGAIN;
  }
  return 0;
}

}  // namespace

TEST(SystemErrorTest, HasATypeOfItsOwnForFiveNumbersOnly) {
  for (int code = 1; code < 134; ++code) {
    SCOPED_TRACE(code);
    const bool specific = code == 1 || code == 2 || code == 4 || code == 10 || code == 11;
    EXPECT_EQ(thrownType(code), specific ? code : 0);
  }
}

TEST(SystemErrorTest, IsCaughtAsItsTypeAndAsSystemError) {
  const auto fail = [] { throwSystemError("forkExecvPipes: fork() failed", 11); };
  const std::string expected = std::string("forkExecvPipes: fork() failed: ") + std::strerror(11);
  EXPECT_EQ(whatOf<ExSystemError<11>>(fail), expected);
  EXPECT_EQ(whatOf<SystemError>(fail), expected);
  EXPECT_EQ(whatOf<std::runtime_error>(fail), expected);
}

TEST(SystemErrorTest, TakesThePresentErrnoForACodeOfZeroButNeverItsType) {
  for (const int number : {1, 2, 4, 10, 11, 13}) {
    SCOPED_TRACE(number);
    errno = number;
    EXPECT_EQ(thrownType(0), 0);
    errno = number;
    const SystemError error("x", 0);
    errno = 0;
    EXPECT_EQ(error.code(), number);
    EXPECT_EQ(std::string(error.what()), std::string("x: ") + std::strerror(number));
  }
}

TEST(SystemErrorTest, RendersAnEmptyTextAsTheTextOfTheSystemAlone) {
  EXPECT_STREQ(SystemError("", ENOSPC).what(), std::strerror(ENOSPC));
}

TEST(SystemErrorTest, RendersOnlyOnce) {
  const SystemError error("x", ENOENT);
  const char* first = error.what();
  EXPECT_EQ(error.what(), first);
  EXPECT_STREQ(first, "x: No such file or directory");
}
