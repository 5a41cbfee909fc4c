// Questions for the daemon, through its client library.
//
// Remembered answers cost no call. Of the others a bounded number is with the daemon at a time,
// equal ones are one, and those that wait have their turn by users, round robin: one user with a
// thousand open connections never fills what the daemon accepts from the relay.
#pragma once

#include <proxymanager/client.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <string>

#include "relay/entry.h"
#include "relay/loop.h"

namespace relay {

/// Questions that are with the daemon at a time. It takes 64 of one connection.
inline constexpr std::size_t kMaxAsked = 32;
/// How long the daemon has for one answer: a script may take 5.25 s, and others may be before it.
inline constexpr std::chrono::seconds kAnswerTime{15};
/// How long a request waits for its answer, the turn included.
inline constexpr std::chrono::seconds kTurnTime{30};
/// Clients whose user is not known share a turn.
inline constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);

class Questions {
 public:
  explicit Questions(asio::io_context& loop);
  Questions(const Questions&) = delete;
  Questions& operator=(const Questions&) = delete;
  ~Questions();

  /// Asks for the proxies of `url`, in the turn of `user`.
  Task<Answer> ask(std::string url, uid_t user);

  /// Questions with the daemon, and those that wait, for tests and figures.
  std::size_t asked() const { return mAsked; }
  std::size_t waiting() const { return mWaiting; }

 private:
  struct Question {
    std::string url;
    bool isDone = false;
    Answer answer;
    std::vector<Event*> events;
  };
  using QuestionPtr = std::shared_ptr<Question>;
  struct Sent;

  static void answered(proxymanager_status status, proxymanager_answer* answer, void* context);
  void sendMore();
  void send(const QuestionPtr& question);
  void end(const QuestionPtr& question, Answer answer);

  asio::io_context& mLoop;
  proxymanager_client* mClient;
  std::map<std::string, QuestionPtr, std::less<>> mQuestions;  ///< without an answer yet
  std::map<uid_t, std::deque<QuestionPtr>> mTurns;
  uid_t mLastUser = 0;
  std::size_t mAsked = 0;
  std::size_t mWaiting = 0;
};

}  // namespace relay
