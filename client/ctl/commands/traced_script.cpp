#include "client/ctl/commands/traced_script.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/url_parts.h"

namespace client {

namespace {

using Clock = std::chrono::steady_clock;

/// Whether `shown`, a value in JavaScript syntax, is the text `result`. A long value is cut and
/// ends in "...".
bool isShownAs(std::string shown, const std::string& result) {
  constexpr std::string_view kCut = "...";
  const bool isCut = shown.ends_with("\"...");
  if (isCut) shown.resize(shown.size() - kCut.size());
  const auto value = nlohmann::json::parse(shown, nullptr, false);
  if (!value.is_string()) return shown == result;
  const auto text = value.get<std::string>();
  return isCut ? result.starts_with(text) : result == text;
}

std::string_view reasonWithoutLine(std::string_view reason) {
  const auto end = reason.starts_with("line ") ? reason.find(": ") : reason.npos;
  return end == reason.npos ? reason : reason.substr(end + 2);
}

/// Whether both scripts have the same answer, or no answer for the same reason. The line of the
/// reason may differ: a script that reaches a limit does not always end in the same line.
bool isAnsweredAlike(const ShownAnswer& plain, const pac_engine::Reply& traced) {
  if (plain.result || traced.result) return plain.result == traced.result;
  return reasonWithoutLine(plain.error.value_or("")) == traced.problem.message;
}

/// Whether the return `outer` calls the function that contains the return `inner`. Without this
/// check, a function that was called before `outer` and returned the same text would count, too.
bool passesOn(const InstrumentedScript& script, std::size_t outer, std::size_t inner) {
  const auto& callees = script.places[outer].callees;
  const auto& name = script.functions[script.places[inner].function].name;
  return std::find(callees.begin(), callees.end(), name) != callees.end();
}

}  // namespace

/// The names that the limit of names has refused since the last trace. Only the library knows them:
/// for the process of the script, such a name has no address.
class TracedScript::RefusedNames {
 public:
  void add(std::string_view name) {
    if (mBytes > kMostBytes) return;
    mBytes += name.size();
    mNames.emplace(name);
  }

  /// Marks the names in `trace`, and forgets them.
  void moveTo(Trace& trace) {
    for (auto& event : trace.events) {
      if (!event.call) continue;
      for (auto& lookup : event.call->lookups) lookup.isRefused = mNames.contains(lookup.name);
    }
    mNames.clear();
    mBytes = 0;
  }

 private:
  /// As much as the events of a trace. Names that are refused later are not in the trace.
  static constexpr std::size_t kMostBytes = 8U << 20U;

  std::set<std::string> mNames;
  std::size_t mBytes = 0;
};

TracedScript::TracedScript(std::string_view script, const std::string& file,
                           const pac_engine::Options& options, TraceOptions tracing)
    : mSource(script),
      mFile(file),
      mOptions(options),
      mTracing(tracing),
      mAlerts(tracing.forMadeUrls ? Alerts::kDropped : Alerts::kShown) {
  loadPlain();
  mScript = instrumented(script, shownName(file));
  startTracing();
}

TracedScript::TracedScript(const TracedScript& other, TraceOptions tracing)
    : mSource(other.mSource),
      mFile(other.mFile),
      mOptions(other.mOptions),
      mTracing(tracing),
      mAlerts(tracing.forMadeUrls ? Alerts::kDropped : Alerts::kShown),
      mScript(other.mScript) {
  loadPlain();
  startTracing();
}

TracedScript TracedScript::forMadeUrls() const {
  return {*this, {mTracing.detail, true}};
}

void TracedScript::loadPlain() {
  auto& names = mOptions.names;
  // If there is a list of names, even an empty list, no name server is asked.
  if (mTracing.forMadeUrls && !names.offline && !names.staticNames) names.staticNames.emplace();
  pac_engine::Problem refused;
  mPlain = loadScript(mSource, mOptions, refused, mAlerts);
  if (!mPlain) throw refusal(mFile, refused);
}

void TracedScript::startTracing() {
  auto options = mOptions;
  options.role = pac_engine::WorkerRole::kTraces;
  if (mTracing.detail == TraceDetail::kEverything) {
    mRefusedNames = std::make_shared<RefusedNames>();
    options.names.onRefused = [names = mRefusedNames](std::string_view name) { names->add(name); };
  }
  pac_engine::Problem refused;
  mTraced = pac_engine::Engine::load(mScript.text, std::move(options), refused);
  if (!mTraced) {
    throw Failure(kRefused, shownName(mFile) +
                                ": the engine takes the script, but not with the calls that note "
                                "what it does: " +
                                pac_engine::describe(refused));
  }
  mLoad = takeTrace();
}

Trace TracedScript::takeTrace() {
  pac_engine::Problem problem;
  const auto detail = mTracing.detail == TraceDetail::kReturns  ? "returns"
                      : mTracing.detail == TraceDetail::kCounts ? "counts"
                                                                : "";
  const auto text = mTraced->command("trace", detail, problem);
  if (!text) throw Failure(kRefused, shownName(mFile) + ": " + pac_engine::describe(problem));
  try {
    auto trace = traceOf(nlohmann::json::parse(*text), mScript.places);
    if (mRefusedNames) mRefusedNames->moveTo(trace);
    return trace;
  } catch (const std::exception&) {
    throw Failure(kInternal, shownName(mFile) + ": the workbench sent what is no trace");
  }
}

/// The return that chose the answer. Usually, this is the last return of FindProxyForURL. Code of a
/// "finally" may run after this return, so it is not always the last return of the script. If the
/// last return of FindProxyForURL did not give the answer, the function tries the last return that
/// ran. If a return passed on the result of a call, the return of the called function counts
/// instead.
std::optional<std::size_t> TracedScript::decidingReturn(const Trace& trace,
                                                        const ShownAnswer& answer) const {
  if (trace.cut || !answer.result) return std::nullopt;
  const auto isReturn = [this](const TracedEvent& event) {
    return !event.call && mScript.places[*event.place].is('r');
  };
  const auto isOfEntry = [&](const TracedEvent& event) {
    if (!isReturn(event)) return false;
    return mScript.functions[mScript.places[*event.place].function].name == "FindProxyForURL";
  };
  auto first = std::find_if(trace.events.rbegin(), trace.events.rend(), isOfEntry);
  if (first == trace.events.rend() || !isShownAs(first->value, *answer.result))
    first = trace.events.rbegin();
  std::optional<std::size_t> decided;
  for (auto event = first; event != trace.events.rend(); ++event) {
    if (!isReturn(*event)) break;
    if (!isShownAs(event->value, *answer.result)) break;
    if (decided && !passesOn(mScript, *decided, *event->place)) break;
    decided = event->place;
    if (event->isAfterOthers) break;
  }
  return decided;
}

TracedAnswer TracedScript::ask(const std::string& url, const std::optional<std::string>& host) {
  TracedAnswer asked;
  const auto begun = Clock::now();
  asked.answer = evaluateUrl(*mPlain, url, host, mAlerts);
  asked.took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begun);
  if (asked.answer.host.empty() && !host) return asked;  // no question was asked
  // This evaluation shows no alerts, because the unchanged script has already shown them.
  const auto traced = mTraced->evaluate(canonicalOrGiven(url), asked.answer.host);
  if (mTraced->workerPid() == 0) {
    asked.different = pac_engine::describe(traced.problem);
    asked.trace.cut = true;
    startTracing();
    return asked;
  }
  asked.trace = takeTrace();
  if (!isAnsweredAlike(asked.answer, traced))
    asked.different = traced.result ? *traced.result : pac_engine::describe(traced.problem);
  asked.decidedBy = decidingReturn(asked.trace, asked.answer);
  return asked;
}

}  // namespace client
