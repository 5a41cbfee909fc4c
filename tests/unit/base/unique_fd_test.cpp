#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace {

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

base::UniqueFd opened() {
  return base::UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(UniqueFd, ClosesWhatItOwnsAtItsEnd) {
  int fd = -1;
  {
    const base::UniqueFd owner = opened();
    fd = owner.get();
    EXPECT_TRUE(owner);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFd, OwnsNothingAfterAMoveOrARelease) {
  base::UniqueFd first = opened();
  const int fd = first.get();
  base::UniqueFd second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(second.get(), fd);
  const base::UniqueFd third(second.release());
  EXPECT_FALSE(second);
  EXPECT_TRUE(isOpen(fd));
  EXPECT_EQ(third.get(), fd);
}

TEST(UniqueFd, ClosesTheOldOneWhenItTakesAnother) {
  base::UniqueFd owner = opened();
  const int old = owner.get();
  base::UniqueFd other = opened();
  const int fd = other.get();
  owner = std::move(other);
  EXPECT_FALSE(isOpen(old));
  EXPECT_EQ(owner.get(), fd);
}

TEST(UniqueFd, KeepsTheErrnoOfWhatFailed) {
  base::UniqueFd owner = opened();
  const int fd = owner.get();
  close(fd);
  errno = ENOENT;
  owner.reset();  // close() fails with EBADF, but errno keeps its value
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
