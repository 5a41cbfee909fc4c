#include "client/ctl/commands/traced_script.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

TracedScript::TracedScript(std::string_view script, const std::string& file,
                           const pac_engine::Options& options)
    : mFile(shownName(file)), mOptions(options) {
  mOptions.role = pac_engine::WorkerRole::kTraces;
  pac_engine::Problem refused;
  mPlain = loadScript(script, options, refused);
  if (!mPlain) throw refusal(file, refused);
  mScript = instrumented(script, mFile);
  startTracing();
}

void TracedScript::startTracing() {
  pac_engine::Problem refused;
  mTraced = pac_engine::Engine::load(mScript.text, mOptions, refused);
  if (!mTraced) {
    throw Failure(kRefused, mFile +
                                ": the engine takes the script, but not with the calls that note "
                                "what it does: " +
                                pac_engine::describe(refused));
  }
  mLoad = takeTrace();
}

Trace TracedScript::takeTrace() {
  pac_engine::Problem problem;
  const auto text = mTraced->command("trace", "", problem);
  if (!text) throw Failure(kRefused, mFile + ": " + pac_engine::describe(problem));
  try {
    return traceOf(nlohmann::json::parse(*text), mScript.places);
  } catch (const std::exception&) {
    throw Failure(kInternal, mFile + ": the workbench sent what is no trace");
  }
}

/// The first of the consecutive returns at the end that passed on the same answer: this return
/// chose it.
std::optional<std::size_t> TracedScript::decidingReturn(const Trace& trace,
                                                        const ShownAnswer& answer) const {
  std::optional<std::size_t> decided;
  std::string value;
  for (auto event = trace.events.rbegin(); event != trace.events.rend(); ++event) {
    const bool isReturn = !event->call && mScript.places[*event->place].is('r');
    if (!isReturn || (decided && event->value != value)) break;
    decided = event->place;
    value = event->value;
  }
  return answer.result ? decided : std::nullopt;
}

TracedAnswer TracedScript::ask(const std::string& url, const std::optional<std::string>& host) {
  TracedAnswer asked;
  const auto begun = Clock::now();
  asked.answer = evaluateUrl(*mPlain, url, host);
  asked.took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begun);
  if (asked.answer.host.empty() && !host) return asked;  // no question was asked
  // The unchanged script has already shown these alerts.
  const auto traced = mTraced->evaluate(url, asked.answer.host);
  if (mTraced->workerPid() == 0) {
    asked.different = pac_engine::describe(traced.problem);
    asked.trace.cut = true;
    startTracing();
    return asked;
  }
  asked.trace = takeTrace();
  if (traced.result != asked.answer.result)
    asked.different = traced.result ? *traced.result : pac_engine::describe(traced.problem);
  asked.decidedBy = decidingReturn(asked.trace, asked.answer);
  return asked;
}

}  // namespace client
