// Questions for the daemon, through its client library.
//
// The client library remembers answers, and a remembered answer needs no call. The other questions
// wait in a queue. The relay sends at most kMaxAsked of them to the daemon at a time, and sends
// equal questions once. Each user has a queue, and the users take turns (round robin). So one user
// with a thousand connections cannot use all the questions that the daemon accepts from the relay.
// If two users ask the same question, it is in both queues. The relay sends it at the first turn of
// either user.
#pragma once

#include <proxymanager/client.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "relay/entry.h"
#include "relay/loop.h"

namespace relay {

/// Maximum number of questions that the relay has sent and the daemon has not answered yet. The
/// daemon accepts 64 from one connection.
inline constexpr std::size_t kMaxAsked = 32;
/// Time limit for one answer of the daemon: a script may take 5.25 s, and other questions may come
/// first.
inline constexpr std::chrono::seconds kAnswerTime{15};
/// How long a request waits for the daemon's answer, including the time in the queue.
inline constexpr std::chrono::seconds kTurnTime{30};
/// All clients whose user is not known count as this one user.
inline constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);

class Questions {
 public:
  explicit Questions(asio::io_context& loop);
  Questions(const Questions&) = delete;
  Questions& operator=(const Questions&) = delete;
  ~Questions();

  /// Asks for the proxies of `url`. If the question has to wait, it waits in the queue of `user`.
  /// @return the answer; its status is PROXYMANAGER_TOO_SLOW after kTurnTime
  Task<Answer> ask(std::string url, uid_t user);

  /// The number of questions that were sent and are not answered yet, and the number of questions
  /// that wait in the queues.
  std::size_t asked() const { return mAsked; }
  std::size_t waiting() const { return mWaiting; }

 private:
  struct Question {
    std::string url;
    std::vector<uid_t> users;  ///< the users whose queues contain the question
    bool isTaken = false;  ///< taken from one of these queues; the other queues skip the question
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
  std::map<std::string, QuestionPtr, std::less<>> mQuestions;  ///< questions without an answer
  std::map<uid_t, std::deque<QuestionPtr>> mTurns;
  uid_t mLastUser = 0;
  std::size_t mAsked = 0;
  std::size_t mWaiting = 0;
};

}  // namespace relay
