#include "client/ctl/commands/traced_script.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

TracedLookup lookupOf(const Json& row) {
  TracedLookup lookup;
  lookup.name = row.at(0).get<std::string>();
  lookup.addresses = row.at(1).get<std::vector<std::string>>();
  lookup.microseconds = row.at(2).get<std::int64_t>();
  lookup.isNew = row.at(3).get<bool>();
  return lookup;
}

TracedCall callOf(const Json& row) {
  TracedCall call;
  call.depth = row.at(1).get<std::size_t>();
  call.name = row.at(2).get<std::string>();
  call.arguments = row.at(3).get<std::vector<std::string>>();
  if (!row.at(4).is_null()) call.result = row.at(4).get<std::string>();
  call.microseconds = row.at(5).get<std::int64_t>();
  for (const auto& lookup : row.at(6)) call.lookups.push_back(lookupOf(lookup));
  return call;
}

/// Gives the call that ended last under the name that stands at `place` its place.
void placeCall(std::vector<TracedEvent>& events, std::size_t place, const std::string& source) {
  const auto found = std::find_if(events.rbegin(), events.rend(), [&](const TracedEvent& event) {
    return event.call && event.call->depth == 0 && !event.place &&
           source.compare(0, event.call->name.size(), event.call->name) == 0;
  });
  if (found != events.rend()) found->place = place;
}

Trace traceOf(const Json& report, const std::vector<Place>& places) {
  Trace trace;
  for (const auto& row : report.at("counts")) {
    const PlaceCount count{row.at(0).get<std::size_t>(), row.at(1).get<std::uint64_t>(),
                           row.at(2).get<std::uint64_t>(), row.at(3).get<std::uint64_t>()};
    if (count.place >= places.size()) throw std::out_of_range("place");
    trace.counts.push_back(count);
  }
  for (const auto& row : report.at("events")) {
    TracedEvent event;
    if (row.at(0).get<std::string>() == "c") {
      event.call = callOf(row);
    } else {
      event.place = row.at(1).get<std::size_t>();
      event.value = row.at(2).get<std::string>();
      event.truthy = row.at(3).get<bool>();
      const auto& place = places.at(*event.place);
      if (place.is('h')) placeCall(trace.events, *event.place, place.source);
    }
    trace.events.push_back(std::move(event));
  }
  trace.cut = report.at("cut").get<bool>();
  trace.ownText = report.at("ownText").get<bool>();
  return trace;
}

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
    return traceOf(Json::parse(*text), mScript.places);
  } catch (const std::exception&) {
    throw Failure(kInternal, mFile + ": the workbench sent what is no trace");
  }
}

/// The first of the returns at the end that handed the answer on: the one that chose it.
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
  // Its alerts were heard already.
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
