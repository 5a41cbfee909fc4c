// The queue of the questions that programs ask the daemon. Its order is fair to all users.
//
// The daemon answers one question after the other, and a script that looks up names may take 5 s
// for each question. So only kMaxAsked questions are at the daemon at a time, and the other
// questions wait here. The queue takes the users in turn (round robin), and the questions of one
// user in the order of their arrival. If a user has many questions, only this user waits longer.
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

/// Maximum number of questions that are at the daemon. While the daemon answers the first question,
/// the second question already waits there.
inline constexpr std::size_t kMaxAsked = 2;
/// Maximum number of questions of one connection, and of one user, that wait or are at the daemon.
inline constexpr std::size_t kMaxQuestionsOfCaller = 8;
inline constexpr std::size_t kMaxQuestionsOfUser = 64;
/// Maximum number of questions of all users together. One person can have many user ids: a
/// container has a range of them.
inline constexpr std::size_t kMaxQuestions = 512;
/// Longest time that a question waits for its turn. No caller needs more: the callers' bus
/// libraries stop waiting after 25 s or 30 s.
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

  /// The user of `caller`, if `caller` has a question in the queue or at the daemon.
  std::optional<uid_t> userOf(const std::string& caller) const;
  /// Whether one more question of this caller fits into the limits.
  bool hasRoom(const std::string& caller, uid_t user) const;

  /// Adds a question for which hasRoom() is true. The owner calls proceed() afterwards.
  void add(Question question);
  /// Calls `ask` or `refuse` of the questions whose turn it is. If `ask` or `refuse` throws, its
  /// question has already left the queue.
  void proceed(Clock::time_point now);
  /// Notes that the daemon has answered a question of `caller`. The owner calls proceed()
  /// afterwards.
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
  std::map<uid_t, std::size_t> mOfUser;  ///< questions that wait or are at the daemon
  std::list<User> mTurns;                ///< the users with waiting questions; the first is next
  std::size_t mAsked = 0;
  std::size_t mQuestions = 0;
};

}  // namespace settings
