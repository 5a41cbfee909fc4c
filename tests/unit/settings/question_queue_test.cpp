// Tests which question goes to the daemon next.
#include "settings/question_queue.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace settings;

namespace {

class QuestionQueueTest : public testing::Test {
 protected:
  void add(const std::string& caller, uid_t user) {
    queue.add({caller, user, [this, caller] { asked.push_back(caller); },
               [this, caller] { refused.push_back(caller); }, now});
    queue.proceed(now);
  }
  void answer(const std::string& caller) {
    queue.ended(caller);
    queue.proceed(now);
  }
  using Callers = std::vector<std::string>;

  QuestionQueue queue;
  QuestionQueue::Clock::time_point now{};
  Callers asked, refused;
};

TEST_F(QuestionQueueTest, TwoQuestionsAreAtTheDaemonAndTheNextFollowsAnAnswer) {
  for (int i = 0; i < 3; i++) add("a", 1);
  EXPECT_EQ(asked.size(), kMaxAsked);
  answer("a");
  EXPECT_EQ(asked.size(), kMaxAsked + 1);
}

TEST_F(QuestionQueueTest, AUserWithManyConnectionsDelaysOnlyItsOwn) {
  for (const char* caller : {"a", "b", "c", "d", "e"}) add(caller, 1);
  add("x", 2);
  add("y", 3);
  asked.clear();
  answer("a");
  answer("b");
  answer("c");
  answer("x");
  // The user that has waited longest comes first, and then each user in turn.
  EXPECT_EQ(asked, (Callers{"c", "x", "y", "d"}));
}

TEST_F(QuestionQueueTest, ACallerAndAUserAndAllHaveALimit) {
  for (std::size_t i = 0; i < kMaxQuestionsOfCaller; i++) {
    EXPECT_TRUE(queue.hasRoom("a", 1));
    add("a", 1);
  }
  EXPECT_FALSE(queue.hasRoom("a", 1));
  EXPECT_TRUE(queue.hasRoom("b", 1));
  for (std::size_t i = kMaxQuestionsOfCaller; i < kMaxQuestionsOfUser; i++) {
    EXPECT_TRUE(queue.hasRoom("b" + std::to_string(i), 1));
    add("b" + std::to_string(i), 1);
  }
  EXPECT_FALSE(queue.hasRoom("c", 1));
  EXPECT_TRUE(queue.hasRoom("c", 2));
  for (std::size_t i = kMaxQuestionsOfUser; i < kMaxQuestions; i++) {
    const auto user = static_cast<uid_t>(2 + i);
    EXPECT_TRUE(queue.hasRoom("d" + std::to_string(i), user));
    add("d" + std::to_string(i), user);
  }
  EXPECT_FALSE(queue.hasRoom("e", 1000));
  // An answer makes room for another question of the same caller and of the same user.
  answer("a");
  EXPECT_TRUE(queue.hasRoom("e", 1000));
  EXPECT_TRUE(queue.hasRoom("a", 1));
}

TEST_F(QuestionQueueTest, TheUserOfACallerIsKnownAsLongAsItHasAQuestion) {
  EXPECT_FALSE(queue.userOf("a"));
  add("a", 7);
  EXPECT_EQ(queue.userOf("a"), 7U);
  answer("a");
  EXPECT_FALSE(queue.userOf("a"));
}

TEST_F(QuestionQueueTest, AQuestionThatHasWaitedTooLongIsRefusedAndNotAsked) {
  for (const char* caller : {"a", "b", "late"}) add(caller, 1);
  now += kQuestionLimit + std::chrono::seconds{1};
  add("new", 2);
  answer("a");
  EXPECT_EQ(refused, Callers{"late"});
  EXPECT_EQ(asked, (Callers{"a", "b", "new"}));
  EXPECT_FALSE(queue.userOf("late"));
}

TEST_F(QuestionQueueTest, AQuestionThatWaitedJustTheLimitIsAsked) {
  for (const char* caller : {"a", "b", "c"}) add(caller, 1);
  now += kQuestionLimit;
  answer("a");
  EXPECT_TRUE(refused.empty());
  EXPECT_EQ(asked.back(), "c");
}

TEST_F(QuestionQueueTest, AQuestionThatCannotBeAskedLeavesTheQueue) {
  const auto fails = [] { throw std::runtime_error("why"); };
  queue.add({"a", 1, fails, [] {}, now});
  EXPECT_THROW(queue.proceed(now), std::runtime_error);
  EXPECT_FALSE(queue.userOf("a"));
  add("b", 1);
  EXPECT_EQ(asked, Callers{"b"});
}

}  // namespace
