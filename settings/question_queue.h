// The questions of programs that wait for the daemon, in a fair order.
//
// The daemon answers one question after the other, and a script that looks up names may take 5 s
// for each. So only kMaxAsked questions are at the daemon at a time, and the others wait here:
// round robin over the users, and in the order of arrival for each user. A user with many questions
// delays only his own.
//
// The class does not use the bus. Not synchronised: one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace settings {

/// Maximum number of questions that are at the daemon: one is answered, and the next one is there
/// when the daemon is ready.
inline constexpr std::size_t kMaxAsked = 2;
/// Maximum number of questions of one connection, and of one user, that wait or are at the daemon.
inline constexpr std::size_t kMaxQuestionsOfCaller = 8;
inline constexpr std::size_t kMaxQuestionsOfUser = 64;
/// Maximum number of questions of all users together. One person can be many users: a container has
/// a range of them.
inline constexpr std::size_t kMaxQuestions = 512;
/// How long a question waits for its turn. No caller waits longer: the bus libraries give up after
/// 25 s or 30 s.
inline constexpr std::chrono::seconds kQuestionLimit{60};

class QuestionQueue {
 public:
  using Clock = std::chrono::steady_clock;
  struct Question {
    std::string caller;  ///< unique name on the bus
    uid_t user = 0;
    std::function<void()> ask;     ///< asks the daemon; the asker calls ended() after the answer
    std::function<void()> refuse;  ///< called instead of `ask` after kQuestionLimit
    Clock::time_point arrival;
  };

  /// The user of a caller with a question in the queue or at the daemon.
  std::optional<uid_t> userOf(const std::string& caller) const;
  /// Whether one more question of this caller fits into the limits.
  bool hasRoom(const std::string& caller, uid_t user) const;

  /// Adds a question for which hasRoom() is true. The owner calls proceed() afterwards.
  void add(Question question);
  /// Calls `ask` or `refuse` of the questions whose turn it is. If one of them throws, its question
  /// has left the queue.
  void proceed(Clock::time_point now);
  /// A question that was asked has its answer. The owner calls proceed() afterwards.
  void ended(const std::string& caller);

 private:
  struct Caller {
    uid_t user;
    std::size_t questions;
  };
  struct User {
    uid_t user;
    std::list<Question> waiting;
  };
  void forget(const std::string& caller);
  std::optional<Question> next();

  std::map<std::string, Caller> mCallers;
  std::map<uid_t, std::size_t> mOfUser;  ///< that wait or are at the daemon
  std::list<User> mTurns;                ///< the users with waiting questions; the first is next
  std::size_t mAsked = 0;
  std::size_t mQuestions = 0;
};

}  // namespace settings
