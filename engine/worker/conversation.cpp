#include "engine/worker/conversation.h"

#include <cstdlib>
#include <string>

#include "base/utf8.h"
#include "engine/worker/evaluation_alarm.h"
#include "engine/worker/worker_end.h"

namespace pac_worker {
namespace {

// The library discards a worker that sends more than the protocol allows. So the script's limits
// equal those of the protocol.
static_assert(ScriptLimits{}.resultBytes == pac_engine::kMaxResultBytes);
static_assert(ScriptLimits{}.alertBytes == pac_engine::kMaxAlertBytes);

}  // namespace

pac_engine::Start receiveStart(pac_engine::Channel& channel) {
  const auto message = receiveOrEnd(channel);
  const auto* const start = std::get_if<pac_engine::Start>(&message);
  if (start == nullptr) endWorker(kExitBroken);
  return *start;
}

void sendReply(pac_engine::Channel& channel, std::uint32_t serial, const Reply& reply) {
  if (reply.result) {
    sendOrEnd(channel, pac_engine::Answer{serial, *reply.result});
    return;
  }
  const auto& error = reply.problem;
  const auto cut = base::utf8Head(error.message, pac_engine::kMaxProblemBytes);
  sendOrEnd(channel, pac_engine::NoAnswer{serial, error.line, cut});
}

void sendReport(pac_engine::Channel& channel, std::uint32_t serial, const Reply& reply) {
  if (!reply.result) return sendReply(channel, serial, reply);
  for (std::string_view rest = *reply.result; !rest.empty();) {
    const auto piece = rest.substr(0, pac_engine::kMaxReportBytes);
    sendOrEnd(channel, pac_engine::Report{piece});
    rest.remove_prefix(piece.size());
  }
  sendOrEnd(channel, pac_engine::Answer{serial, ""});
}

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
  PacEnvironment& device = mEnvironment;
  auto& environment = mExtension != nullptr ? mExtension->around(device) : device;
  mEngine = std::make_unique<ScriptEngine>(environment, limits, mExtension);
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
  if (const auto* const command = std::get_if<pac_engine::Command>(&message);
      command != nullptr && mExtension != nullptr) {
    sendReport(mChannel, command->serial, mExtension->report(command->name, command->argument));
    return;
  }
  const auto* const question = std::get_if<pac_engine::Evaluate>(&message);
  if (question == nullptr) endWorker(kExitBroken);
  // The texts of the question are in the channel's buffer, which the first lookup of the script
  // overwrites. So they are copied.
  const auto serial = question->serial;
  const std::string url(question->url);
  const std::string host(question->host);
  const auto reply = [&] {
    const EvaluationAlarm alarm(mTimeLimit);
    return mEngine->evaluate(url, host);
  }();
  sendReply(mChannel, serial, reply);
}

}  // namespace pac_worker
