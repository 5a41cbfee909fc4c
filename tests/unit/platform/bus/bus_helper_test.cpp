#include "platform/bus/bus_helper.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"
#include "tests/support/private_bus.h"

namespace {

class Helper : public testing::Test {
 protected:
  PrivateBus mBus;
  std::shared_ptr<DBus::BusHelper> mHelper = DBus::get_helper();
};

TEST_F(Helper, IsOneForTheProcess) {
  EXPECT_EQ(DBus::get_helper(), mHelper);
}

TEST_F(Helper, RunsAtOnceWhereNothingIsDispatched) {
  std::thread::id where;
  mHelper->run([&] { where = std::this_thread::get_id(); });
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST_F(Helper, RunsOnTheBusThreadInTheOrderOfTheCalls) {
  mHelper->startDispatching();
  std::vector<int> order;
  std::promise<std::thread::id> last;
  for (int i = 0; i < 100; ++i) mHelper->run([&, i] { order.push_back(i); });
  mHelper->run([&] { last.set_value(std::this_thread::get_id()); });
  EXPECT_NE(last.get_future().get(), std::this_thread::get_id());
  ASSERT_EQ(order.size(), 100U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(Helper, OnTheBusThreadItRunsAtOnce) {
  mHelper->startDispatching();
  std::promise<bool> nested;
  mHelper->run([&] {
    bool ran = false;
    mHelper->run([&] { ran = true; });
    nested.set_value(ran);
  });
  EXPECT_TRUE(nested.get_future().get());
}

TEST_F(Helper, AFunctionThatThrowsIsSaidAndSwallowed) {
  mHelper->startDispatching();
  std::promise<void> after;
  mHelper->run([] { throw std::runtime_error("nothing today"); });
  mHelper->run([&] { after.set_value(); });
  after.get_future().wait();
  EXPECT_TRUE(logged(LOG_ERR, "bus: a function handed to the bus thread failed: nothing today"));
}

TEST_F(Helper, HoldsAsManyFunctionsAsItsBoundAndDropsTheNext) {
  mHelper->startDispatching();
  std::promise<void> blocked;
  std::promise<void> go;
  std::atomic<std::size_t> ran{0};
  mHelper->run([&] {
    blocked.set_value();
    go.get_future().wait();
  });
  blocked.get_future().wait();
  for (std::size_t i = 0; i < DBus::BusHelper::kMaxPosted; ++i) mHelper->run([&] { ++ran; });
  const std::string dropped = "bus: 1024 functions wait for the bus thread, one more dropped";
  EXPECT_EQ(countLog(LOG_ERR, dropped), 0);
  mHelper->run([&] { ++ran; });
  EXPECT_EQ(countLog(LOG_ERR, dropped), 1);
  go.set_value();
  std::promise<void> after;
  while (ran < DBus::BusHelper::kMaxPosted) std::this_thread::yield();
  mHelper->run([&] { after.set_value(); });
  after.get_future().wait();
  EXPECT_EQ(ran, DBus::BusHelper::kMaxPosted);
}

TEST_F(Helper, EndsHoweverEarlyItIsToldTo) {
  for (int i = 0; i < 200; ++i) {
    mHelper->startDispatching();
    mHelper->stopDispatching();
  }
}

void waitUntilAsleep(pid_t thread) {
  for (;;) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string line((std::istreambuf_iterator<char>(file)), {});
    const auto name = line.rfind(") ");
    if (name != std::string::npos && line[name + 2] == 'S') return;
    std::this_thread::yield();
  }
}

TEST_F(Helper, RunsWhatWasPostedBeforeItEnds) {
  mHelper->startDispatching();
  std::promise<void> blocked;
  std::promise<void> go;
  mHelper->run([&] {
    blocked.set_value();
    go.get_future().wait();
  });
  blocked.get_future().wait();
  int ran = 0;
  for (int i = 0; i < 3; ++i) mHelper->run([&] { ++ran; });
  std::promise<pid_t> stopping;
  std::thread stopper([&] {
    stopping.set_value(gettid());
    mHelper->stopDispatching();
  });
  // After this, stopDispatching() waits for the bus thread.
  waitUntilAsleep(stopping.get_future().get());
  go.set_value();
  stopper.join();
  EXPECT_EQ(ran, 3);
}

// Sends 1 MiB: more than a socket's buffers can hold if the other end does not read.
void postMuchOutput(DBus::BusHelper& helper) {
  std::promise<void> posted;
  helper.run([&] {
    for (int i = 0; i < 16; ++i) {
      DBus::SignalMessage signal("/test", "com.zentu.test", "Much");
      signal.writer().append_string(std::string(64 * 1024, 'x').c_str());
      helper.connection().send(signal);
    }
    DBus::CallMessage release("org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus", "ReleaseName");
    release.writer().append_string("com.zentu.test");
    helper.connection().send(release);
    posted.set_value();
  });
  posted.get_future().wait();
}

/// Whether the name loses its owner within ten seconds. Another connection asks, because a question
/// on the owner's connection would also send the output that waits there.
bool isReleased(const char* name) {
  DBus::BusDispatcher loop;
  DBus::default_dispatcher = &loop;
  DBus::Connection other(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true);
  other.register_bus();
  // The bus may answer before it has read everything that the owner has sent, so the question is
  // repeated. Without the release, the name keeps its owner.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool owned = other.has_name(name);
  while (owned && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
    owned = other.has_name(name);
  }
  return !owned;
}

TEST_F(Helper, SendsWhatWaitsBeforeItEnds) {
  mHelper.reset();
  onceOfFive([this] {
    ASSERT_TRUE(isReleased("com.zentu.test")) << "by the time before";
    DBus::BusHelper helper;
    helper.requestName("com.zentu.test");
    helper.startDispatching();
    mBus.pause();
    postMuchOutput(helper);
    std::jthread going([this] { mBus.goOn(); });
    helper.stopDispatching();
    EXPECT_TRUE(isReleased("com.zentu.test")) << "the last of what was to be sent";
  });
}

TEST_F(Helper, GivesUpSendingToABusThatDoesNotRead) {
  mHelper->startDispatching();
  mBus.pause();
  postMuchOutput(*mHelper);
  const auto begin = std::chrono::steady_clock::now();
  mHelper->stopDispatching();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  mBus.goOn();
}

TEST_F(Helper, DoesNotWaitForABusThatStoppedToSayGoodbye) {
  mHelper->requestName("com.zentu.test");
  mHelper->startDispatching();
  mBus.pause();
  const auto begin = std::chrono::steady_clock::now();
  mHelper->stopDispatching();
  mHelper.reset();
  // A call that waits for its answer would take 25 s.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  mBus.goOn();
}

TEST_F(Helper, GivesUpAskingForANameOnABusThatDoesNotAnswer) {
  mBus.pause();
  EXPECT_THROW(mHelper->requestName("com.zentu.test"), DBus::Error);
  mBus.goOn();
}

TEST_F(Helper, TakesANameThatIsFree) {
  mHelper->requestName("com.zentu.test");
}

TEST_F(Helper, ANameThatAnotherOwnsIsAnError) {
  DBus::Connection other(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true);
  other.register_bus();
  other.request_name("com.zentu.test");
  try {
    mHelper->requestName("com.zentu.test");
    FAIL() << "the name is another's";
  } catch (const DBus::Error& error) {
    EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.AddressInUse");
  }
}

TEST(HelperDeathTest, ALostBusEndsTheProcessWithOne) {
  PrivateBus bus;  // outside of the child, so that this process removes the folder
  EXPECT_EXIT(
      {
        DBus::BusHelper helper;
        helper.startDispatching();
        bus.kill();
        std::this_thread::sleep_for(std::chrono::seconds(20));
        _exit(0);
      },
      testing::ExitedWithCode(1), "");
}

TEST(HelperDeathTest, ABusLostWithOutputWaitingEndsTheProcessWithOne) {
  PrivateBus bus;  // outside of the child, so that this process removes the folder
  EXPECT_EXIT(
      {
        DBus::BusHelper helper;
        helper.startDispatching();
        bus.pause();
        postMuchOutput(helper);
        bus.kill();
        std::this_thread::sleep_for(std::chrono::seconds(20));
        _exit(0);
      },
      testing::ExitedWithCode(1), "");
}

TEST_F(Helper, RunsNothingThatIsPostedWhileOutputWaits) {
  mHelper->startDispatching();
  mBus.pause();
  postMuchOutput(*mHelper);
  std::promise<void> ran;
  auto running = ran.get_future();
  mHelper->run([&] { ran.set_value(); });
  EXPECT_EQ(running.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  mBus.goOn();
  EXPECT_EQ(running.wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST(HelperWithoutBus, ASilentBusIsAnErrorAfterItsLimit) {
  PrivateBus bus;
  bus.pause();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(DBus::get_helper(), DBus::Error);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9));
  // The abandoned thread still runs. So the process ends without destroying anything that the
  // thread may use.
  bus.kill();
  std::fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(HelperWithoutBus, IsAnError) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  EXPECT_THROW(DBus::get_helper(), DBus::Error);
}

}  // namespace
