#include "platform/process/run_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"

namespace {

std::string content(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

// A second process that holds the run file until it is killed.
class Holder {
 public:
  explicit Holder(const char* name) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    mPid = fork();
    if (mPid == 0) {
      const char result = create_varrunpid(name) == 0 ? 'y' : 'n';
      if (::write(ready[1], &result, 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(ready[1]);
    char result = 'n';
    mHolds = read(ready[0], &result, 1) == 1 && result == 'y';
    close(ready[0]);
  }
  ~Holder() { end(); }
  void end() {
    if (mPid <= 0) return;
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
    mPid = 0;
  }
  bool holds() const { return mHolds; }
  pid_t pid() const { return mPid; }

 private:
  pid_t mPid;
  bool mHolds = false;
};

TEST(RunFile, HoldsTheOwnProcessId) {
  enterOwnRoot();
  EXPECT_EQ(create_varrunpid("proxymanagerd"), 0);
  EXPECT_EQ(content("/run/proxymanagerd.pid"), std::to_string(getpid()));
  EXPECT_TRUE(logLines().empty());
}

TEST(RunFile, IsRefusedWhileAnotherProcessLives) {
  enterOwnRoot();
  Holder other("proxymanagerd");
  ASSERT_TRUE(other.holds());
  EXPECT_EQ(create_varrunpid("proxymanagerd"), 1);
  EXPECT_EQ(
      countLog(LOG_WARNING, "process: the run file /run/proxymanagerd.pid is held by process " +
                                std::to_string(other.pid())),
      1);
  EXPECT_EQ(content("/run/proxymanagerd.pid"), std::to_string(other.pid()));
}

TEST(RunFile, IsHadAgainAfterItsHolderWasKilled) {
  enterOwnRoot();
  Holder other("proxymanagerd");
  ASSERT_TRUE(other.holds());
  other.end();
  ASSERT_TRUE(std::filesystem::exists("/run/proxymanagerd.pid"));
  EXPECT_EQ(create_varrunpid("proxymanagerd"), 0);
  EXPECT_EQ(content("/run/proxymanagerd.pid"), std::to_string(getpid()));
}

TEST(RunFile, AStaleFileIsNoObstacleEvenWhenItNamesALiveProcess) {
  enterOwnRoot();
  write("/run/proxymanagerd.pid", std::to_string(getppid()) + "   and a longer rest");
  EXPECT_EQ(create_varrunpid("proxymanagerd"), 0);
  EXPECT_EQ(content("/run/proxymanagerd.pid"), std::to_string(getpid()));
}

TEST(RunFile, DaemonsOfOtherNamesDoNotMeet) {
  enterOwnRoot();
  Holder other("anotherd");
  ASSERT_TRUE(other.holds());
  EXPECT_EQ(create_varrunpid("proxymanagerd"), 0);
}

TEST(RunFile, IsNotInheritedByProgramsThatAreStarted) {
  enterOwnRoot();
  ASSERT_EQ(create_varrunpid("proxymanagerd"), 0);
  EXPECT_NE(std::system("ls -l /proc/self/fd | grep -q proxymanagerd.pid"), 0);
}

TEST(RunFile, IsRemovedByAnOrderlyEndAndLeftAloneByAForkedChild) {
  enterOwnRoot();
  const pid_t daemon = fork();
  if (daemon == 0) {
    if (create_varrunpid("proxymanagerd") != 0) _exit(1);
    const pid_t child = fork();
    if (child == 0) std::exit(0);
    waitpid(child, nullptr, 0);
    if (!std::filesystem::exists("/run/proxymanagerd.pid")) _exit(2);
    std::exit(0);
  }
  int status = -1;
  waitpid(daemon, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(std::filesystem::exists("/run/proxymanagerd.pid"));
}

TEST(RunFile, AnUnwritableFolderIsSaidApartFromAnotherInstance) {
  enterOwnRoot();
  std::filesystem::create_directory("/run/proxymanagerd.pid");
  EXPECT_EQ(create_varrunpid("proxymanagerd"), -1);
  EXPECT_EQ(
      countLog(LOG_ERR, "process: cannot take the run file /run/proxymanagerd.pid: Is a directory"),
      1);
}

TEST(RunFile, NamesThatLeaveTheFolderAreRefused) {
  enterOwnRoot();
  for (const char* name : {"", "..", "a/b", "../tmp/x"}) EXPECT_EQ(create_varrunpid(name), -1);
  EXPECT_EQ(create_varrunpid(nullptr), -1);
  EXPECT_TRUE(logged(LOG_ERR, "process: cannot take the run file ../tmp/x: Invalid argument"));
  EXPECT_TRUE(std::filesystem::is_empty("/run"));
}

// Runs `test` as an ordinary user, in a child process, because the leak checker does not work after
// a change of user. Skips the test if the namespace has no other user.
template <typename Test>
void asOrdinaryUser(Test test) {
  constexpr uid_t kNobody = 65534;
  constexpr int kNoSuchUser = 77;
  const pid_t child = fork();
  if (child == 0) {
    if (seteuid(kNobody) != 0) _exit(kNoSuchUser);
    test();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoSuchUser) GTEST_SKIP() << "one user only";
  EXPECT_EQ(status, 0);
}

TEST(RunFile, StandsInTheRuntimeFolderOfAnOrdinaryUser) {
  enterOwnRoot();
  std::filesystem::create_directory("/tmp/runtime");
  chmod("/tmp/runtime", 0777);
  setenv("XDG_RUNTIME_DIR", "/tmp/runtime", 1);
  asOrdinaryUser([] {
    EXPECT_EQ(create_varrunpid("proxymanagerd"), 0);
    EXPECT_EQ(content("/tmp/runtime/proxymanagerd.pid"), std::to_string(getpid()));
    EXPECT_FALSE(std::filesystem::exists("/run/proxymanagerd.pid"));
  });
}

TEST(RunFile, OfAnOrdinaryUserFallsBackToTheUsersOwnFolder) {
  enterOwnRoot();
  setenv("XDG_RUNTIME_DIR", "relative", 1);
  asOrdinaryUser([] {
    EXPECT_EQ(create_varrunpid("proxymanagerd"), -1);
    EXPECT_TRUE(logged(LOG_ERR,
                       "process: cannot take the run file /run/user/65534/proxymanagerd.pid: No "
                       "such file or directory"));
  });
}

}  // namespace
