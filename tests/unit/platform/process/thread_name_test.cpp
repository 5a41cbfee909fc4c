#include "platform/process/thread_name.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <string>
#include <thread>

#include "tests/support/log_capture.h"

namespace {

std::string ownName() {
  char name[16];
  prctl(PR_GET_NAME, name);
  return name;
}

TEST(ThreadName, OfFifteenCharactersIsKeptAndOneMoreIsCut) {
  EXPECT_EQ(pthread_name_np(gettid(), "123456789012345"), 0);
  EXPECT_EQ(ownName(), "123456789012345");
  EXPECT_EQ(pthread_name_np(gettid(), "abcdefghijklmnop"), 0);
  EXPECT_EQ(ownName(), "abcdefghijklmno");
  EXPECT_EQ(pthread_name_np(gettid(), "proxymanager_service"), 0);
  EXPECT_EQ(ownName(), "proxymanager_se");
}

TEST(ThreadName, IsGivenToAnotherThreadByItsId) {
  std::promise<pid_t> started;
  std::promise<void> named;
  std::string seen;
  std::thread other([&] {
    started.set_value(gettid());
    named.get_future().wait();
    seen = ownName();
  });
  const std::string before = ownName();
  EXPECT_EQ(pthread_name_np(started.get_future().get(), "abcdefghijklmnop"), 0);
  named.set_value();
  other.join();
  EXPECT_EQ(seen, "abcdefghijklmno");
  EXPECT_EQ(ownName(), before);
}

TEST(ThreadName, ForAThreadOfAnotherProcessIsRefused) {
  EXPECT_EQ(pthread_name_np(getppid(), "stranger"), ENOENT);
  EXPECT_TRUE(logged(LOG_WARNING, "process: cannot name thread " + std::to_string(getppid()) +
                                      ": No such file or directory"));
}

TEST(ThreadName, ThatIsMissingIsRefused) {
  const std::string before = ownName();
  EXPECT_EQ(pthread_name_np(gettid(), ""), EINVAL);
  EXPECT_EQ(pthread_name_np(gettid(), nullptr), EINVAL);
  EXPECT_EQ(ownName(), before);
}

}  // namespace
