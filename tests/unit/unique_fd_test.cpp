#include "commons/unique_fd.h"

#include <fcntl.h>

#include <cerrno>

#include "support.h"

namespace {

int openSomething() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

}  // namespace

TEST(UniqueFdTest, ClosesItsDescriptor) {
  int fd;
  {
    const UniqueFd owner(openSomething());
    fd = owner.get();
    EXPECT_TRUE(owner);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFdTest, MovesItsDescriptor) {
  UniqueFd first(openSomething());
  const int fd = first.get();
  UniqueFd second(std::move(first));
  EXPECT_EQ(second.get(), fd);
  UniqueFd third(openSomething());
  const int replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), fd);
  EXPECT_TRUE(isOpen(fd));
  EXPECT_FALSE(isOpen(replaced));
  UniqueFd& same = third;
  third = std::move(same);
  EXPECT_EQ(third.get(), fd);
  EXPECT_TRUE(isOpen(fd));
}

TEST(UniqueFdTest, LetsItsDescriptorGo) {
  UniqueFd owner(openSomething());
  const int fd = owner.release();
  EXPECT_FALSE(owner);
  EXPECT_TRUE(isOpen(fd));
  close(fd);
}

TEST(UniqueFdTest, ReportsAnErrorOfClosingOnce) {
  UniqueFd owner(openSomething());
  close(owner.get());
  EXPECT_EQ(owner.close(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(owner.close(), 0);
}

TEST(UniqueFdTest, MayOwnNothing) {
  UniqueFd none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), -1);
  EXPECT_EQ(none.close(), 0);
  EXPECT_FALSE(UniqueFd(-1));
}
