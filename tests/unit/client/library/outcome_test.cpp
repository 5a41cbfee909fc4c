#include "client/library/outcome.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

using client::library::failedAnswer;
using client::library::failedConnecting;
using client::library::failedSending;
using client::library::lastFailure;
using client::library::setLastFailure;
using client::library::statusOfConnecting;
using client::library::statusOfError;

TEST(OutcomeTest, KnowsTheErrorsOfTheBusByName) {
  const auto of = [](const char* name) {
    return statusOfError("org.freedesktop.DBus.Error." + std::string(name));
  };
  for (const char* name : {"ServiceUnknown", "NameHasNoOwner", "NoReply", "TimedOut",
                           "Spawn.ChildExited", "Spawn.ServiceNotFound"}) {
    EXPECT_EQ(of(name), PROXYMANAGER_NO_DAEMON) << name;
  }
  EXPECT_EQ(statusOfError("org.freedesktop.systemd1.NoSuchUnit"), PROXYMANAGER_NO_DAEMON);
  for (const char* name : {"AccessDenied", "AuthFailed"}) EXPECT_EQ(of(name), PROXYMANAGER_DENIED);
  EXPECT_EQ(of("Timeout"), PROXYMANAGER_TOO_SLOW);
  for (const char* name : {"LimitsExceeded", "NoMemory"}) EXPECT_EQ(of(name), PROXYMANAGER_BUSY);
  for (const char* name : {"Disconnected", "NoServer"}) EXPECT_EQ(of(name), PROXYMANAGER_NO_BUS);
  for (const char* name : {"UnknownMethod", "InconsistentMessage", "NoReplyAtAll"}) {
    EXPECT_EQ(of(name), PROXYMANAGER_BAD_REPLY) << name;
  }
  EXPECT_EQ(statusOfError("com.example.NoReply"), PROXYMANAGER_BAD_REPLY);
  EXPECT_EQ(statusOfError(""), PROXYMANAGER_BAD_REPLY);
}

TEST(OutcomeTest, ABusThatClosesTheDoorDenies) {
  for (const int error : {EACCES, EPERM, ECONNRESET, EPIPE, ENOTCONN}) {
    EXPECT_EQ(statusOfConnecting(error), PROXYMANAGER_DENIED);
  }
  for (const int error : {ENOMEM, EMFILE, ENFILE}) {
    EXPECT_EQ(statusOfConnecting(error), PROXYMANAGER_NO_MEMORY);
  }
  for (const int error : {ENOENT, ECONNREFUSED, ETIMEDOUT, EINVAL, EAGAIN}) {
    EXPECT_EQ(statusOfConnecting(error), PROXYMANAGER_NO_BUS);
  }
}

TEST(OutcomeTest, AQuestionThatCannotBeSentIsNotRefusedByTheBus) {
  EXPECT_EQ(failedSending(ENOTCONN).status, PROXYMANAGER_NO_BUS);
  EXPECT_EQ(failedSending(ENOMEM).status, PROXYMANAGER_NO_MEMORY);
  EXPECT_EQ(failedSending(ENOBUFS).status, PROXYMANAGER_BUSY);
}

TEST(OutcomeTest, TheLastFailureIsSaidUntilTheNextQuestion) {
  EXPECT_EQ(lastFailure()->status, PROXYMANAGER_OK);
  setLastFailure(failedAnswer("com.example.Error", "why"));
  EXPECT_EQ(lastFailure()->status, PROXYMANAGER_BAD_REPLY);
  EXPECT_STREQ(lastFailure()->name, "com.example.Error");
  EXPECT_STREQ(lastFailure()->text, "why");
  setLastFailure(failedConnecting(ENOENT));
  EXPECT_EQ(lastFailure()->status, PROXYMANAGER_NO_BUS);
  EXPECT_EQ(lastFailure()->error, ENOENT);
  EXPECT_STREQ(lastFailure()->name, "");
  setLastFailure({});
  EXPECT_EQ(lastFailure()->status, PROXYMANAGER_OK);
  EXPECT_EQ(lastFailure()->error, 0);
}
