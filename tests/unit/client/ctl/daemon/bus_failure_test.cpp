#include "client/ctl/daemon/bus_failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

using client::failedCall;
using client::failedConnection;
using std::chrono::milliseconds;

namespace {

constexpr client::CallKind kAsk{"ask", false};
constexpr client::CallKind kChange{"change it", true};

std::string said(const client::Failure& failure) {
  return std::to_string(failure.status()) + ": " + failure.what();
}

std::string call(const std::string& name, const client::CallKind& kind = kAsk) {
  return said(failedCall(kind, "org.freedesktop.DBus.Error." + name, "TEXT", milliseconds(1500)));
}

}  // namespace

TEST(FailedCallTest, SaysHowToStartADaemonThatIsNotThere) {
  const std::string start = "start it, for instance with \"systemctl start proxymanagerd\"";
  for (const auto* const name : {"ServiceUnknown", "NameHasNoOwner"}) {
    EXPECT_EQ(call(name), "69: proxymanagerd does not run; " + start);
  }
  for (const auto* const name : {"Spawn.ChildExited", "Spawn.ServiceNotFound", "TimedOut"}) {
    EXPECT_EQ(call(name),
              "69: proxymanagerd does not run and the bus cannot start it (TEXT); " + start);
  }
  EXPECT_EQ(said(failedCall(kAsk, "org.freedesktop.systemd1.NoSuchUnit", "", {})),
            "69: proxymanagerd does not run and the bus cannot start it "
            "(org.freedesktop.systemd1.NoSuchUnit); " +
                start);
}

TEST(FailedCallTest, SaysWhoMayDoWhatIsDenied) {
  for (const auto* const name : {"AccessDenied", "AuthFailed"}) {
    EXPECT_EQ(call(name, kChange),
              "77: not allowed to change it; root may, and so may members of the group "
              "proxymanager");
  }
}

TEST(FailedCallTest, SaysWhatToDoAboutASlowAnswer) {
  EXPECT_EQ(call("Timeout"),
            "75: proxymanagerd has not answered within 1.5 s, maybe because it loads a script; "
            "try again, or give it more time with --timeout");
  EXPECT_EQ(call("Timeout", kChange),
            "75: proxymanagerd has not answered within 1.5 s, maybe because it loads a script; "
            "the change may still be made, look with \"proxymanagerctl config\", or give it more "
            "time with --timeout");
}

TEST(FailedCallTest, SaysThatTheDaemonOrTheConnectionEnded) {
  EXPECT_EQ(call("NoReply"),
            "69: proxymanagerd ended before it answered; look why with \"journalctl -t "
            "proxymanager_service\" and try again");
  for (const auto* const name : {"Disconnected", "NoServer"}) {
    EXPECT_EQ(call(name),
              "69: the connection to the message bus is lost; try again when it is back");
  }
}

TEST(FailedCallTest, SaysThatTheBusIsBusy) {
  for (const auto* const name : {"LimitsExceeded", "NoMemory"}) {
    EXPECT_EQ(call(name), "75: the message bus is too busy (TEXT); try again later");
  }
}

TEST(FailedCallTest, SaysThatSomebodyElseHasTheName) {
  for (const auto* const name : {"UnknownMethod", "UnknownInterface", "InvalidArgs", "Failed"}) {
    EXPECT_EQ(
        call(name),
        "76: the program that owns the name of proxymanagerd cannot do this (TEXT); look who it is with "
        "\"busctl status com.zentu.ProxyManagerService\"");
  }
  EXPECT_EQ(
      said(failedCall(kAsk, "org.example.Own", "", {})),
      "76: the program that owns the name of proxymanagerd cannot do this (org.example.Own); look who it "
      "is with \"busctl status com.zentu.ProxyManagerService\"");
}

TEST(FailedConnectionTest, SaysWhatToDo) {
  const auto say = [](int error) { return said(failedConnection("unix:ADDRESS", error)); };
  EXPECT_EQ(
      say(ENOENT),
      "69: there is no message bus at unix:ADDRESS (No such file or directory); start it, or name "
      "another in DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_EQ(
      say(ECONNREFUSED),
      "69: there is no message bus at unix:ADDRESS (Connection refused); start it, or name another "
      "in DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_EQ(
      say(EACCES),
      "77: the message bus at unix:ADDRESS does not let this user in (Permission denied); try as "
      "another");
  EXPECT_EQ(
      say(EPERM),
      "77: the message bus at unix:ADDRESS does not let this user in (Operation not permitted); try "
      "as another");
  for (const int ended : {ECONNRESET, EPIPE, ENOTCONN}) {
    EXPECT_EQ(
        say(ended),
        "77: the message bus at unix:ADDRESS does not let this user in (it ends the connection); "
        "try as another");
    EXPECT_EQ(
        said(failedConnection("tcp:host=h", ended)),
        "69: there is no message bus at tcp:host=h (Connection refused); start it, or name another "
        "in DBUS_SYSTEM_BUS_ADDRESS");
  }
  EXPECT_EQ(say(ETIMEDOUT),
            "75: the message bus at unix:ADDRESS does not answer; try again, or restart it");
  EXPECT_EQ(say(EINVAL),
            "64: unix:ADDRESS is no address of a message bus; look at DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_EQ(said(failedConnection("foo", ECONNREFUSED)),
            "64: foo is no address of a message bus; look at DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(SecondsTextTest, IsAsShortAsItCanBe) {
  EXPECT_EQ(client::secondsText(milliseconds(15'000)), "15 s");
  EXPECT_EQ(client::secondsText(milliseconds(250)), "0.25 s");
  EXPECT_EQ(client::secondsText(std::chrono::hours(24)), "86400 s");
}
