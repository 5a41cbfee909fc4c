// Questions for the daemon, through its client library.
//
// The client library remembers answers, and a remembered answer needs no call. The other questions
// wait in a queue. The relay sends at most kMaxAsked of them to the daemon at a time, and sends
// equal questions once. The queue is round robin over users: so one user with a thousand
// connections cannot use up the number of questions that the daemon accepts from the relay. A
// question that two users ask stands in the queues of both. The relay sends it at the first turn of
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

/// Maximum number of questions that are with the daemon at a time. The daemon accepts 64 from one
/// connection.
inline constexpr std::size_t kMaxAsked = 32;
/// Time limit of the daemon for one answer: a script may take 5.25 s, and other questions may come
/// first.
inline constexpr std::chrono::seconds kAnswerTime{15};
/// How long a request waits for its answer, with the time in the queue.
inline constexpr std::chrono::seconds kTurnTime{30};
/// All clients whose user is not known share this one place in the round robin.
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

  /// The number of questions that are with the daemon, and the number that wait in the queue.
  std::size_t asked() const { return mAsked; }
  std::size_t waiting() const { return mWaiting; }

 private:
  struct Question {
    std::string url;
    std::vector<uid_t> users;  ///< in whose queues it stands
    bool isTaken = false;      ///< from one of these queues; the others skip it
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
