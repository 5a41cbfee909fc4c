#include "engine/worker/conversation.h"

#include <sys/time.h>

#include <cstdlib>
#include <string>

#include "base/utf8.h"
#include "engine/worker/worker_end.h"

namespace pac_worker {
namespace {

// The library discards a worker that sends more than the protocol allows.
static_assert(ScriptLimits{}.resultBytes == pac_engine::kMaxResultBytes);
static_assert(ScriptLimits{}.alertBytes == pac_engine::kMaxAlertBytes);

/// Ends the process should a load or an evaluation outlast the library that waits for it: some
/// scripts never come back to where the engine looks at the clock, and the library's own wall,
/// which stands before this one, falls with the library.
class EvaluationAlarm {
 public:
  explicit EvaluationAlarm(std::chrono::milliseconds limit) { arm(limit + kAfterTheLibrary); }
  ~EvaluationAlarm() { arm(std::chrono::milliseconds(0)); }
  EvaluationAlarm(const EvaluationAlarm&) = delete;
  EvaluationAlarm& operator=(const EvaluationAlarm&) = delete;

 private:
  static constexpr std::chrono::milliseconds kAfterTheLibrary{1000};

  // SIGALRM's default action is the end.
  static void arm(std::chrono::milliseconds after) {
    const auto count = after.count();
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(count / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(count % 1000 * 1000);
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

pac_engine::Start receiveStart(pac_engine::Channel& channel) {
  const auto message = receiveOrEnd(channel);
  const auto* const start = std::get_if<pac_engine::Start>(&message);
  if (start == nullptr) endWorker(kExitBroken);
  return *start;
}

}  // namespace

void refuse(pac_engine::Channel& channel, std::string_view message, std::uint32_t line) {
  const auto cut = base::utf8Head(message, pac_engine::kMaxProblemBytes);
  sendOrEnd(channel, pac_engine::Refused{line, cut});
  endWorker(EXIT_SUCCESS);
}

void Conversation::load(std::string_view script) {
  const auto start = receiveStart(mChannel);
  if (start.clock) mEnvironment.stopClock(*start.clock);
  mTimeLimit = std::chrono::milliseconds(start.timeLimitMs);
  ScriptLimits limits;
  limits.time = mTimeLimit;
  mEngine = std::make_unique<ScriptEngine>(mEnvironment, limits);
  const auto error = [&] {
    const EvaluationAlarm alarm(mTimeLimit);
    return mEngine->load(script);
  }();
  if (error) refuse(mChannel, error->message, error->line);
}

void Conversation::answerForEver() {
  sendOrEnd(mChannel, pac_engine::Ready{});
  for (;;) {
    mEnvironment.begin();
    answer();
  }
}

void Conversation::answer() {
  const auto message = receiveOrEnd(mChannel);
  const auto* const question = std::get_if<pac_engine::Evaluate>(&message);
  if (question == nullptr) endWorker(kExitBroken);
  // The texts lie in the channel's buffer, which the first lookup of the script overwrites.
  const auto serial = question->serial;
  const std::string url(question->url);
  const std::string host(question->host);
  const auto reply = [&] {
    const EvaluationAlarm alarm(mTimeLimit);
    return mEngine->evaluate(url, host);
  }();
  if (reply.result) {
    sendOrEnd(mChannel, pac_engine::Answer{serial, *reply.result});
    return;
  }
  const auto& error = reply.problem;
  const auto cut = base::utf8Head(error.message, pac_engine::kMaxProblemBytes);
  sendOrEnd(mChannel, pac_engine::NoAnswer{serial, error.line, cut});
}

}  // namespace pac_worker
