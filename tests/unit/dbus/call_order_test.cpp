#include "dbus/call_order.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Kind = CallOrder::Kind;
constexpr unsigned long kServiceUser = 990;

// The tests distinguish the calls by their method.
DBus::CallMessage call(const std::string& name) {
  return {":1.1", "/a", "a.b", name.c_str()};
}

class Order : public testing::Test {
 protected:
  void ask(const std::string& sender, const std::string& name) {
    mOrder.add(sender, Kind::kQuestion, call(name));
  }
  void plain(const std::string& sender, const std::string& name) {
    mOrder.add(sender, Kind::kPlain, call(name));
  }
  std::string next() {
    const auto taken = mOrder.next();
    return taken ? taken->member() : "";
  }
  std::vector<std::string> rest() {
    std::vector<std::string> names;
    for (auto name = next(); !name.empty(); name = next()) names.push_back(name);
    return names;
  }

  CallOrder mOrder{kServiceUser};
};
using Names = std::vector<std::string>;

TEST_F(Order, KeepsTheOrderWithinAConnection) {
  ask(":1", "q1");
  plain(":1", "p1");
  ask(":1", "q2");
  EXPECT_EQ(rest(), (Names{"q1", "p1", "q2"}));
}

TEST_F(Order, TakesCallsThatNeedNoScriptBeforeQuestions) {
  ask(":1", "q1");
  ask(":2", "q2");
  plain(":3", "p");
  EXPECT_EQ(rest(), (Names{"p", "q1", "q2"}));
}

TEST_F(Order, TakesRootsAndTheServicesOwnPlainCallsFirst) {
  for (const char* sender : {":1", ":2", ":3", ":4"}) plain(sender, std::string("p") + sender[1]);
  mOrder.setUser(":1", 1000);
  mOrder.setUser(":2", 1001);
  mOrder.setUser(":3", kServiceUser);
  mOrder.setUser(":4", 0);
  EXPECT_EQ(rest(), (Names{"p3", "p4", "p1", "p2"}));
}

TEST_F(Order, GoesRoundRobinOverUsersAndThenOverTheirConnections) {
  for (int i = 0; i < 3; ++i) {
    ask(":1", "a" + std::to_string(i));
    ask(":2", "b" + std::to_string(i));
  }
  ask(":3", "other0");
  ask(":3", "other1");
  for (const char* sender : {":1", ":2"}) mOrder.setUser(sender, 1000);
  mOrder.setUser(":3", 1001);
  EXPECT_EQ(rest(), (Names{"a0", "other0", "b0", "other1", "a1", "b1", "a2", "b2"}));
}

TEST_F(Order, ANewcomerGoesBeforeTheOneThatWasServedLast) {
  ask(":1", "a0");
  ask(":1", "a1");
  EXPECT_EQ(next(), "a0");
  ask(":2", "b0");
  EXPECT_EQ(rest(), (Names{"b0", "a1"}));
}

TEST_F(Order, AQuestionHasItsTurnAfterSixtyFourCallsThatNeedNoScript) {
  for (unsigned i = 0; i < 2 * CallOrder::kPlainInARow; ++i) plain(":1", "p");
  ask(":2", "q0");
  ask(":2", "q1");
  for (unsigned i = 0; i < CallOrder::kPlainInARow; ++i) ASSERT_EQ(next(), "p") << i;
  EXPECT_EQ(next(), "q0");
  for (unsigned i = 0; i < CallOrder::kPlainInARow; ++i) ASSERT_EQ(next(), "p") << i;
  EXPECT_EQ(rest(), Names{"q1"});
}

TEST_F(Order, HasRoomForSixtyFourQuestionsOfAConnection) {
  for (std::size_t i = 0; i < CallOrder::kMaxOfConnection; ++i) {
    ASSERT_TRUE(mOrder.hasRoom(":1", Kind::kQuestion)) << i;
    ask(":1", "q");
  }
  EXPECT_FALSE(mOrder.hasRoom(":1", Kind::kQuestion));
  EXPECT_TRUE(mOrder.hasRoom(":2", Kind::kQuestion));
  next();
  EXPECT_TRUE(mOrder.hasRoom(":1", Kind::kQuestion));
}

TEST_F(Order, HasRoomForTwoHundredAndFiftySixQuestionsOfAUser) {
  for (int i = 0; i < 5; ++i) {
    const auto sender = ":" + std::to_string(i);
    for (int j = 0; j < 51; ++j) ask(sender, "q");
    EXPECT_TRUE(mOrder.setUser(sender, 1000).empty());
  }
  EXPECT_TRUE(mOrder.hasRoom(":0", Kind::kQuestion));
  ask(":0", "q");
  EXPECT_FALSE(mOrder.hasRoom(":1", Kind::kQuestion));
  ask(":9", "q1");
  ask(":9", "q2");
  const auto excess = mOrder.setUser(":9", 1000);
  ASSERT_EQ(excess.size(), 2U) << "what waited before the user was known";
  EXPECT_STREQ(excess[0].member(), "q2");
  EXPECT_EQ(mOrder.waiting(), CallOrder::kMaxOfUser);
}

TEST_F(Order, DropsTheCallsOfAConnectionThatLeft) {
  ask(":1", "a");
  plain(":1", "b");
  ask(":2", "c");
  mOrder.setUser(":1", 1000);
  mOrder.drop(":1");
  mOrder.drop(":7");
  EXPECT_EQ(mOrder.waiting(), 1U);
  EXPECT_EQ(rest(), Names{"c"});
}

TEST_F(Order, PassesOverTheUserOfARefusedCallUntilThatIsForgotten) {
  ask(":1", "flood");
  ask(":2", "another");
  ask(":3", "q");
  plain(":3", "p");
  for (const char* sender : {":1", ":2"}) mOrder.setUser(sender, 1000);
  mOrder.setUser(":3", 1001);
  mOrder.noteRefused(":1");
  EXPECT_STREQ(mOrder.nextOfModest()->member(), "q");
  EXPECT_STREQ(mOrder.nextOfModest()->member(), "p");
  EXPECT_FALSE(mOrder.nextOfModest());
  mOrder.forgetRefused();
  EXPECT_STREQ(mOrder.nextOfModest()->member(), "flood");
  EXPECT_EQ(rest(), (Names{"another"}));
}

TEST_F(Order, KnowsThatACallWasRefusedBeforeItsUserWasKnown) {
  for (const char* sender : {":1", ":2"}) ask(sender, std::string("q") + sender[1]);
  mOrder.noteRefused(":1");
  for (const char* sender : {":1", ":2"}) mOrder.setUser(sender, 1000);
  EXPECT_FALSE(mOrder.nextOfModest());
}

TEST_F(Order, TheOneThatWasServedLastStaysBehindANewcomerThoughNoModestOneWaited) {
  ask(":1", "first");
  ask(":1", "second");
  EXPECT_EQ(next(), "first");
  mOrder.noteRefused(":1");
  EXPECT_FALSE(mOrder.nextOfModest());
  mOrder.forgetRefused();
  ask(":2", "newcomer");
  EXPECT_EQ(rest(), (Names{"newcomer", "second"}));
}

TEST_F(Order, NamesEachConnectionOnceWhoseUserIsNotKnown) {
  ask(":1", "a");
  ask(":1", "b");
  ask(":2", "c");
  EXPECT_EQ(mOrder.takeUnknown(), (Names{":1", ":2"}));
  EXPECT_EQ(mOrder.takeUnknown(), Names{});
  ask(":3", "d");
  EXPECT_EQ(mOrder.takeUnknown(), Names{":3"});
}

}  // namespace
