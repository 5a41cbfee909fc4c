#include "settings/question_queue.h"

#include <algorithm>
#include <utility>

namespace settings {

std::optional<uid_t> QuestionQueue::userOf(const std::string& caller) const {
  const auto found = mCallers.find(caller);
  return found == mCallers.end() ? std::nullopt : std::optional(found->second.user);
}

bool QuestionQueue::hasRoom(const std::string& caller, uid_t user) const {
  const auto ofCaller = mCallers.find(caller);
  const auto ofUser = mOfUser.find(user);
  return mQuestions < kMaxQuestions &&
         (ofCaller == mCallers.end() || ofCaller->second.questions < kMaxQuestionsOfCaller) &&
         (ofUser == mOfUser.end() || ofUser->second < kMaxQuestionsOfUser);
}

void QuestionQueue::add(Question question) {
  mCallers.try_emplace(question.caller, Caller{question.user, 0}).first->second.questions++;
  mOfUser[question.user]++;
  mQuestions++;
  auto turn = std::find_if(mTurns.begin(), mTurns.end(),
                           [&](const User& entry) { return entry.user == question.user; });
  if (turn == mTurns.end()) turn = mTurns.insert(mTurns.end(), User{question.user, {}});
  turn->waiting.push_back(std::move(question));
}

std::optional<QuestionQueue::Question> QuestionQueue::next() {
  if (mTurns.empty()) return std::nullopt;
  User& user = mTurns.front();
  Question question = std::move(user.waiting.front());
  user.waiting.pop_front();
  if (user.waiting.empty()) {
    mTurns.pop_front();
  } else {
    mTurns.splice(mTurns.end(), mTurns, mTurns.begin());
  }
  return question;
}

void QuestionQueue::proceed(Clock::time_point now) {
  while (mAsked < kMaxAsked) {
    const auto question = next();
    if (!question) return;
    const bool isLate = now - question->arrival > kQuestionLimit;
    try {
      (isLate ? question->refuse : question->ask)();
    } catch (...) {
      forget(question->caller);
      throw;
    }
    if (isLate) {
      forget(question->caller);
    } else {
      mAsked++;
    }
  }
}

void QuestionQueue::ended(const std::string& caller) {
  mAsked--;
  forget(caller);
}

void QuestionQueue::forget(const std::string& caller) {
  const auto found = mCallers.find(caller);
  const auto user = mOfUser.find(found->second.user);
  if (--user->second == 0) mOfUser.erase(user);
  if (--found->second.questions == 0) mCallers.erase(found);
  mQuestions--;
}

}  // namespace settings
