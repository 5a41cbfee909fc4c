#include "settings/hand_over.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

using namespace settings;

namespace {

TEST(ScriptPause, GrowsToTenMinutesAndStaysThere) {
  EXPECT_EQ(scriptPause(0), std::chrono::seconds{10});
  EXPECT_EQ(scriptPause(1), std::chrono::seconds{30});
  EXPECT_EQ(scriptPause(2), std::chrono::minutes{1});
  EXPECT_EQ(scriptPause(3), std::chrono::minutes{2});
  EXPECT_EQ(scriptPause(4), std::chrono::minutes{5});
  EXPECT_EQ(scriptPause(5), std::chrono::minutes{10});
  EXPECT_EQ(scriptPause(6), std::chrono::minutes{10});
  EXPECT_EQ(scriptPause(100000), std::chrono::minutes{10});
}

TEST(FailurePause, DoublesUpToItsLimit) {
  EXPECT_EQ(failurePause(0), kFirstFailurePause);
  EXPECT_EQ(failurePause(1), 2 * kFirstFailurePause);
  EXPECT_EQ(failurePause(8), std::chrono::seconds{256});
  EXPECT_EQ(failurePause(9), kLongestFailurePause);
  EXPECT_EQ(failurePause(1000000), kLongestFailurePause);
}

TEST(RefreshPause, IsUpToATenthLongerThanItsInterval) {
  const std::chrono::hours interval{6};
  auto least = std::chrono::milliseconds::max();
  auto most = std::chrono::milliseconds{0};
  for (int i = 0; i < 1000; i++) {
    const auto pause = refreshPause(interval);
    least = std::min(least, pause);
    most = std::max(most, pause);
  }
  EXPECT_GE(least, interval);
  EXPECT_LE(most, interval + std::chrono::minutes{36});
  // A tenth of the interval is 36 minutes, and a thousand pauses are spread over nearly all of it.
  EXPECT_GT(most - least, std::chrono::minutes{30});
}

class ScriptFile : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/settings_test_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    close(fd);
    mPath = name;
  }
  void TearDown() override { unlink(mPath.c_str()); }
  void setTime(timespec time) {
    const timespec times[] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, mPath.c_str(), times, 0), 0);
  }

  std::string mPath;
};

TEST_F(ScriptFile, IsNewerByANanosecond) {
  setTime({1000, 500});
  EXPECT_TRUE(isScriptNewer(mPath, {1000, 499}, {}));
  EXPECT_FALSE(isScriptNewer(mPath, {1000, 500}, {}));
  EXPECT_TRUE(isScriptNewer(mPath, {999, 999999999}, {}));
}

TEST_F(ScriptFile, OfAnotherUserThanRootOrTheDaemonsIsNoScript) {
  setTime({1000, 0});
  ASSERT_EQ(chown(mPath.c_str(), 1234, static_cast<gid_t>(-1)), 0);
  EXPECT_FALSE(isScriptNewer(mPath, {0, 0}, {}));
  EXPECT_FALSE(isScriptNewer(mPath, {0, 0}, 1235));
  EXPECT_TRUE(isScriptNewer(mPath, {0, 0}, 1234));
}

TEST_F(ScriptFile, OfTheFutureIsNotNewer) {
  setTime({time(nullptr) + 60, 0});
  EXPECT_FALSE(isScriptNewer(mPath, {0, 0}, {}));
}

TEST_F(ScriptFile, ALinkOrAMissingFileIsNoScript) {
  const std::string link = mPath + ".link";
  ASSERT_EQ(symlink(mPath.c_str(), link.c_str()), 0);
  EXPECT_FALSE(isScriptNewer(link, {0, 0}, {}));
  unlink(link.c_str());
  EXPECT_FALSE(isScriptNewer(link, {0, 0}, {}));
}

}  // namespace
