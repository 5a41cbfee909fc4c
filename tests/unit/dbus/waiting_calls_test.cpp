#include "dbus/waiting_calls.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <thread>

#include "tests/support/private_bus.h"

namespace {

using Kind = WaitingCalls::Kind;

// A call took the time kGatheringTurn, and one connection sent a flood of calls meanwhile. So the
// object serves no call until it has read all calls, and an answer of the bus ends this reading.
// The test runs the bus loop itself, so the test decides when this answer arrives.
class RefusedCalls : public testing::Test {
 protected:
  void SetUp() override {
    mConnection.register_bus();
    mFlooder = mConnection.unique_name();  // a real name, because the bus is asked for its user
    ask(mFlooder);
    mTakesLong = true;
    mWaiting.takeTurn();
    mTakesLong = false;
    ASSERT_EQ(mServed, 1U);
    for (std::size_t i = 0; i < CallOrder::kMaxOfConnection; ++i) ask(mFlooder);
    ASSERT_EQ(mRefused, 0U);
  }

  void ask(const std::string& sender) {
    DBus::CallMessage call(":1.1", "/a", "a.b", "getProxyurl");
    call.writer().append_string("http://a/");
    call.sender(sender.c_str());
    mWaiting.add(call, Kind::kQuestion, false);
  }

  // Calls takeTurn() until the bus has answered, and returns after the first turn that serves a
  // call.
  void takeFirstTurn() {
    const auto servedOrRefused = [this] { return mServed + mRefused; };
    const auto before = servedOrRefused();
    while (servedOrRefused() == before) {
      mLoop.dispatch_pending();
      if (mWaiting.takeTurn() > 0) mLoop.do_iteration();
    }
  }

  PrivateBus mBus;
  DBus::BusDispatcher mLoop;
  DBus::Connection mConnection = connection();
  std::string mFlooder;
  bool mTakesLong = false;
  std::size_t mServed = 0;
  std::size_t mRefused = 0;
  WaitingCalls mWaiting{mConnection,
                        [this](const DBus::CallMessage&) {
                          ++mServed;
                          if (mTakesLong) std::this_thread::sleep_for(WaitingCalls::kGatheringTurn);
                        },
                        [this](const DBus::CallMessage&) { ++mRefused; }};

 private:
  DBus::Connection connection() {
    DBus::default_dispatcher = &mLoop;
    return {std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true};
  }
};

TEST_F(RefusedCalls, AreKeptUpToTheBoundAndAnsweredAtOncePastIt) {
  for (std::size_t i = 0; i < WaitingCalls::kMaxRefused; ++i) ask(mFlooder);
  EXPECT_EQ(mRefused, 0U);
  ask(mFlooder);
  EXPECT_EQ(mRefused, 1U);
}

TEST_F(RefusedCalls, AsManyAsAreAnsweredAtOnceTakeOneTurn) {
  for (std::size_t i = 0; i < WaitingCalls::kRefusedAtOnce; ++i) ask(mFlooder);
  takeFirstTurn();
  EXPECT_EQ(mRefused, WaitingCalls::kRefusedAtOnce);
  EXPECT_EQ(mServed, 1U);
  mWaiting.takeTurn();
  EXPECT_EQ(mServed, 2U) << "none is left, so a question that waits has its turn";
}

TEST_F(RefusedCalls, OneMoreThanAreAnsweredAtOnceTakesASecondTurn) {
  for (std::size_t i = 0; i <= WaitingCalls::kRefusedAtOnce; ++i) ask(mFlooder);
  takeFirstTurn();
  EXPECT_EQ(mRefused, WaitingCalls::kRefusedAtOnce);
  ask(":1.8");  // its user is not known, so the caller counts as another user
  mWaiting.takeTurn();
  EXPECT_EQ(mServed, 2U) << "it goes before the refused one";
  EXPECT_EQ(mRefused, WaitingCalls::kRefusedAtOnce);
  mWaiting.takeTurn();
  EXPECT_EQ(mRefused, WaitingCalls::kRefusedAtOnce + 1);
}

}  // namespace
