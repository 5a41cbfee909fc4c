#include "platform/netservice/plain_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "tests/support/own_root.h"

using netservice::FileOwner;
using netservice::readPlainFile;

namespace {

constexpr char kFile[] = "/tmp/file";

class PlainFile : public testing::Test {
 protected:
  void SetUp() override { enterOwnRoot(); }
  std::string mText = "before";
};

TEST_F(PlainFile, IsReadWholeToTheLimitAndNotPastIt) {
  std::ofstream(kFile) << "12345678";
  EXPECT_EQ(readPlainFile(kFile, 8, FileOwner::anybody, mText), 0);
  EXPECT_EQ(mText, "12345678");
  EXPECT_EQ(readPlainFile(kFile, 7, FileOwner::anybody, mText), EFBIG);
  EXPECT_EQ(mText, "");
}

// Files of /proc say that they have no bytes.
TEST_F(PlainFile, IsHeldToTheLimitWhereItDoesNotKnowItsSize) {
  EXPECT_EQ(readPlainFile("/proc/self/status", 100, FileOwner::anybody, mText), EFBIG);
  EXPECT_EQ(mText, "");
}

TEST_F(PlainFile, OfAnotherUserIsTakenOnlyWhereAnybodysIs) {
  std::ofstream(kFile) << "theirs";
  if (chown(kFile, 12345, 12345) != 0) GTEST_SKIP() << "needs a second user";
  EXPECT_EQ(readPlainFile(kFile, 100, FileOwner::rootOrSelf, mText), EPERM);
  EXPECT_EQ(mText, "");
  EXPECT_EQ(readPlainFile(kFile, 100, FileOwner::anybody, mText), 0);
  EXPECT_EQ(mText, "theirs");
}

TEST_F(PlainFile, MayBeRootsWhenReadByAnother) {
  std::ofstream(kFile) << "roots";
  if (seteuid(12345) != 0) GTEST_SKIP() << "needs a second user";
  EXPECT_EQ(readPlainFile(kFile, 100, FileOwner::rootOrSelf, mText), 0);
  EXPECT_EQ(mText, "roots");
  // The leak check at the end needs a process that may be traced.
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
}

TEST_F(PlainFile, LeavesNoDescriptorBehind) {
  std::ofstream(kFile) << "x";
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  const int before = dup(0);
  close(before);
  EXPECT_EQ(readPlainFile(kFile, 8, FileOwner::anybody, mText), 0);
  EXPECT_EQ(readPlainFile(kFile, 0, FileOwner::anybody, mText), EFBIG);
  EXPECT_EQ(readPlainFile("/tmp/fifo", 8, FileOwner::anybody, mText), EINVAL);
  EXPECT_EQ(readPlainFile("/tmp/none", 8, FileOwner::anybody, mText), ENOENT);
  EXPECT_EQ(dup(0), before);
}

}  // namespace
