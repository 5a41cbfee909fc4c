#include "relay/decisions.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

TEST(Decisions, AreShownToTheirUserAndToRoot) {
  Decisions decisions;
  decisions.add({1, 1000, "a:1", "DIRECT", true});
  decisions.add({2, 1001, "b:1", "DIRECT", true});
  ASSERT_EQ(decisions.of(1000).size(), 1U);
  EXPECT_EQ(decisions.of(1000)[0].destination, "a:1");
  ASSERT_EQ(decisions.of(0).size(), 2U);
  EXPECT_EQ(decisions.of(0)[0].destination, "b:1");
  EXPECT_TRUE(decisions.of(1002).empty());
}

TEST(Decisions, OfAnUnknownUserAreNotKept) {
  Decisions decisions;
  decisions.add({1, static_cast<uid_t>(-1), "a:1", "DIRECT", true});
  EXPECT_TRUE(decisions.of(0).empty());
}

TEST(Decisions, AreTheLastFiftyOfAUserAndOfSixtyFourUsers) {
  Decisions decisions;
  for (int time = 0; time <= static_cast<int>(kDecisionsOfUser); time++) {
    decisions.add({time, 1000, std::to_string(time), "DIRECT", true});
  }
  const auto list = decisions.of(1000);
  ASSERT_EQ(list.size(), kDecisionsOfUser);
  EXPECT_EQ(list.front().destination, "50");
  EXPECT_EQ(list.back().destination, "1");
  for (unsigned user = 0; user < kUsersWithDecisions; user++) {
    decisions.add({100 + static_cast<int>(user), 2000 + user, "x", "DIRECT", true});
  }
  EXPECT_TRUE(decisions.of(1000).empty());
  EXPECT_EQ(decisions.of(2000).size(), 1U);
}

}  // namespace
