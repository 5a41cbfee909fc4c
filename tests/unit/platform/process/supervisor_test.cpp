#include "platform/process/supervisor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/log_capture.h"

namespace {

// The supervisor, which receives notifications at an abstract socket. The name of the socket is in
// the environment, as with systemd's own socket.
class Supervisor {
 public:
  Supervisor() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    const std::string name = "proxymanager-test-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    if (bind(mSocket, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)) != 0) {
      std::abort();
    }
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  }
  ~Supervisor() { close(mSocket); }

  // The notifications since the last call. A notification is available as soon as its call has
  // returned.
  std::string heard() {
    char bytes[256];
    const ssize_t length = recv(mSocket, bytes, sizeof bytes, 0);
    return length < 0 ? "" : std::string(bytes, static_cast<std::size_t>(length));
  }

 private:
  int mSocket;
};

class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }
  static void watchdog(const std::string& microseconds, pid_t watched) {
    setenv("WATCHDOG_USEC", microseconds.c_str(), 1);
    setenv("WATCHDOG_PID", std::to_string(watched).c_str(), 1);
  }
};

TEST_F(SupervisorTest, WithoutOneEverythingSucceedsInSilence) {
  EXPECT_EQ(restart_connect("proxymanagerd"), 0);
  EXPECT_EQ(feedWatchdog(), 0);
  EXPECT_EQ(notifyStopping(), 0);
  EXPECT_TRUE(logLines().empty());
}

TEST_F(SupervisorTest, HearsThatTheDaemonIsReadyAndThatItStops) {
  Supervisor supervisor;
  EXPECT_EQ(restart_connect("proxymanagerd"), 0);
  EXPECT_EQ(supervisor.heard(), "READY=1\nSTATUS=proxymanagerd runs");
  EXPECT_EQ(notifyStopping(), 0);
  EXPECT_EQ(supervisor.heard(), "STOPPING=1");
}

TEST_F(SupervisorTest, IsFedAtEachCallWhereItWatchesThisProcess) {
  Supervisor supervisor;
  watchdog("60000000", getpid());
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(feedWatchdog(), 0);
    EXPECT_EQ(supervisor.heard(), "WATCHDOG=1");
  }
}

TEST_F(SupervisorTest, IsNotFedWhereItWatchesNobodyOrAnother) {
  Supervisor supervisor;
  EXPECT_EQ(feedWatchdog(), 0);
  watchdog("60000000", getppid());
  EXPECT_EQ(feedWatchdog(), 0);
  EXPECT_EQ(supervisor.heard(), "");
}

TEST_F(SupervisorTest, IsWarnedOfWhenItWaitsLessThanTwoFeedings) {
  watchdog("40000000", getpid());
  EXPECT_EQ(restart_connect("proxymanagerd"), 0);
  EXPECT_TRUE(logLines().empty());
  watchdog("39999999", getpid());
  EXPECT_EQ(restart_connect("proxymanagerd"), 0);
  EXPECT_TRUE(
      logged(LOG_WARNING, "process: the watchdog's 39999 ms are too few, it is fed every 20 s"));
}

TEST_F(SupervisorTest, ThatIsNotToBeReachedIsAFailure) {
  setenv("NOTIFY_SOCKET", "/nowhere/at/all", 1);
  EXPECT_EQ(restart_connect("proxymanagerd"), -1);
  EXPECT_EQ(notifyStopping(), -1);
  watchdog("60000000", getpid());
  EXPECT_EQ(feedWatchdog(), -1);
  EXPECT_EQ(countLog(LOG_ERR, "process: cannot tell the supervisor: No such file or directory"), 3);
}

}  // namespace
