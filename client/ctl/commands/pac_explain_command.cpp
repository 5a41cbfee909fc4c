#include "client/ctl/commands/pac_explain_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/traced_script.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/progress.h"
#include "engine/host/name_lookup.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPacExplainFooter = R"(Output:
  For each URL the steps that led to its answer, in order:
    line N  the value and the source of a condition, or of an operand of &&, ||
            or ??
    line N  the value of a switch; then each case that was tried, and whether
            it matches
    line N  a call of a helper with its arguments, its result and its time
    lookup  a name that the helper looked up, its addresses and the time; or
            "refused" if the script has asked for 20 other names before
    line N  a return, and its value
  Then the result, the return that decided, and the cost: the time of the
  unchanged script; of the instrumented one, which is slower, the calls of
  helpers, the names that were looked up, and their times.
  With --json one array with an object for each URL: the members of "pac eval
  --json", and steps, decided, cost, different and notes. "different" is null,
  or the answer or error of the instrumented script if it is another one; then
  do not trust the steps.

The script runs twice for each URL: once unchanged, and once instrumented, with
calls between its statements that record what it does. The result is that of the
unchanged script. A script can notice the instrumentation if it reads the text
of its own functions; then there is a note. Code that eval or Function runs and
the body of a "with" are not instrumented.

Exit status:
)";

/// Maximum number of steps that are printed for people: half from the start and half from the end.
/// A script with loops has more steps than a person can read.
constexpr std::size_t kMostSteps = 1000;
/// Nested helper calls are indented up to this depth.
constexpr std::size_t kMostIndented = 20;

struct ExplainArguments {
  ChosenScript script;
  UrlArguments asked;
  std::optional<std::string> host;
  SimulatedEnvironment environment;
  bool json = false;
};

/// The time as a text: "1.2 ms" or "340 us".
std::string shownTime(std::int64_t microseconds) {
  if (microseconds < 1000) return std::to_string(microseconds) + " us";
  const auto tenths = (microseconds + 50) / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
}

std::string joined(const std::vector<std::string>& words) {
  std::string all;
  for (const auto& word : words) all += (all.empty() ? "" : ", ") + word;
  return all;
}

std::string shownCall(const TracedCall& call) {
  return call.name + "(" + joined(call.arguments) + ") = " + call.result.value_or("(thrown)");
}

std::string shownLookup(const TracedLookup& lookup) {
  if (lookup.isRefused)
    return "refused (more than " + std::to_string(pac_engine::kNamesPerEvaluation) + " names)";
  return (lookup.addresses.empty() ? "nothing" : joined(lookup.addresses)) +
         (lookup.isNew ? "  " + shownTime(lookup.microseconds) : "  (remembered)");
}

struct Cost {
  std::uint64_t calls = 0;
  std::int64_t callMicroseconds = 0;
  std::size_t lookups = 0;  ///< names
  std::int64_t lookupMicroseconds = 0;
  bool refused = false;  ///< a name was not looked up, because there were too many
};

Cost costOf(const Trace& trace) {
  Cost cost;
  // A name that is looked up in both families counts once, as for the limit of names.
  std::set<std::string> names;
  cost.calls = trace.helperCalls;
  cost.callMicroseconds = static_cast<std::int64_t>(trace.helperNanoseconds / 1000);
  for (const auto& event : trace.events) {
    if (!event.call) continue;
    for (const auto& lookup : event.call->lookups) {
      cost.refused = cost.refused || lookup.isRefused;
      if (!lookup.isNew || lookup.isRefused) continue;
      names.insert(pac_engine::asciiName(lookup.name).value_or(lookup.name));
      cost.lookupMicroseconds += lookup.microseconds;
    }
  }
  cost.lookups = names.size();
  return cost;
}

std::vector<std::string> notesOf(const TracedScript& script, const TracedAnswer& asked) {
  std::vector<std::string> notes;
  for (const auto& note : script.script().notes)
    notes.push_back("line " + std::to_string(note.line) + ": " + note.text);
  if (asked.trace.ownText || script.load().ownText)
    notes.emplace_back(
        "the script reads the text of a function; the instrumented script has another text");
  if (asked.trace.cut) notes.emplace_back("there were more steps than were recorded");
  const auto most = std::to_string(pac_engine::kNamesPerEvaluation);
  if (costOf(asked.trace).refused)
    notes.push_back("the script asked for more than " + most +
                    " names; the engine looks up at most " + most + " for an evaluation");
  const auto load = costOf(script.load());
  if (load.calls > 0)
    notes.push_back("while the script is loaded, it calls helpers: " + std::to_string(load.calls) +
                    ", names looked up: " + std::to_string(load.lookups) +
                    (load.refused ? ", which is the most; further names were refused" : ""));
  return notes;
}

class TextReport {
 public:
  TextReport(const TracedScript& script, const TracedAnswer& asked)
      : mScript(script), mAsked(asked) {}

  void print() {
    mRows.push_back({"host", mAsked.answer.host});
    const auto& events = mAsked.trace.events;
    for (std::size_t i = 0; i < events.size(); ++i) {
      if (i == kMostSteps / 2 && events.size() > kMostSteps) {
        mRows.push_back(
            {"...", std::to_string(events.size() - kMostSteps) + " steps are left out"});
        i = events.size() - kMostSteps / 2;
      }
      events[i].call ? addCall(events[i]) : addValue(events[i]);
    }
    addEnd();
    std::vector<Row> rows;
    for (const auto& row : mRows) rows.push_back({row.name, row.value, row.tone});
    printBlock(mAsked.answer.url, rows);
  }

 private:
  struct OwnedRow {
    std::string name;
    std::string value;
    Tone tone = Tone::kPlain;
  };

  std::string lineOf(std::optional<std::size_t> place) const {
    return place ? "line " + std::to_string(mScript.script().places[*place].line) : "";
  }

  void addCall(const TracedEvent& event) {
    const auto& call = *event.call;
    const bool isShown = call.depth == 0 || !call.lookups.empty();
    if (isShown)
      mRows.push_back({lineOf(event.place),
                       std::string(2 * std::min(call.depth, kMostIndented), ' ') + shownCall(call) +
                           "  " + shownTime(call.microseconds),
                       Tone::kFaint});
    for (const auto& lookup : call.lookups)
      mRows.push_back({"lookup", lookup.name + ": " + shownLookup(lookup), Tone::kFaint});
  }

  void addValue(const TracedEvent& event) {
    const auto& place = mScript.script().places[*event.place];
    if (place.is('r')) {
      const bool isLiteral = place.source == event.value;
      mRows.push_back(
          {lineOf(event.place), shownReturn(place) + (isLiteral ? "" : "  = " + event.value)});
    } else if (place.is('w')) {
      mRows.push_back({lineOf(event.place), event.value + "  switch (" + place.source + ")"});
    } else if (place.is('k')) {
      addCase(event, place);
    } else if (place.is('t') || place.is('o')) {
      const bool isTruth = event.value == "true" || event.value == "false";
      mRows.push_back({lineOf(event.place),
                       (isTruth        ? ""
                        : event.truthy ? "true, "
                                       : "false, ") +
                           event.value + "  " + place.source,
                       event.truthy ? Tone::kGood : Tone::kBad});
    }
  }

  void addCase(const TracedEvent& event, const Place& place) {
    const bool isLiteral = place.source == event.value;
    const auto outcome = !event.matches ? "" : *event.matches ? ": matches" : ": no match";
    mRows.push_back({lineOf(event.place),
                     "case " + place.source + (isLiteral ? "" : " = " + event.value) + outcome,
                     event.matches.value_or(false) ? Tone::kGood : Tone::kBad});
  }

  void addEnd() {
    const auto& answer = mAsked.answer;
    if (answer.result) {
      mRows.push_back({"result", answer.result->empty() ? "(empty)" : *answer.result});
    } else {
      mRows.push_back({"error", answer.error.value_or(""), Tone::kBad});
    }
    if (mAsked.decidedBy) {
      const auto& place = mScript.script().places[*mAsked.decidedBy];
      mRows.push_back({"decided", "line " + std::to_string(place.line) + ", column " +
                                      std::to_string(place.column)});
    }
    const auto cost = costOf(mAsked.trace);
    mRows.push_back({"cost", shownTime(mAsked.took.count()) +
                                 "; instrumented: helpers called: " + std::to_string(cost.calls) +
                                 " (" + shownTime(cost.callMicroseconds) +
                                 "), names looked up: " + std::to_string(cost.lookups) + " (" +
                                 shownTime(cost.lookupMicroseconds) + ")"});
    if (mAsked.different)
      mRows.push_back({"wrong", "the instrumented script has another answer: " + *mAsked.different,
                       Tone::kBad});
    for (const auto& note : notesOf(mScript, mAsked)) mRows.push_back({"note", note});
  }

  const TracedScript& mScript;
  const TracedAnswer& mAsked;
  std::vector<OwnedRow> mRows;
};

Json placeJson(const InstrumentedScript& script, std::optional<std::size_t> number) {
  if (!number) return Json();
  const auto& place = script.places[*number];
  return {{"line", place.line}, {"column", place.column}, {"source", place.source}};
}

Json callJson(const InstrumentedScript& script, const TracedEvent& event) {
  const auto& call = *event.call;
  Json json{{"type", "call"},
            {"at", placeJson(script, event.place)},
            {"depth", call.depth},
            {"name", call.name},
            {"arguments", call.arguments},
            {"result", call.result ? Json(*call.result) : Json()},
            {"microseconds", call.microseconds},
            {"lookups", Json::array()}};
  for (const auto& lookup : call.lookups)
    json["lookups"].push_back({{"name", lookup.name},
                               {"addresses", lookup.addresses},
                               {"microseconds", lookup.microseconds},
                               {"remembered", !lookup.isNew},
                               {"refused", lookup.isRefused}});
  return json;
}

Json stepsJson(const InstrumentedScript& script, const Trace& trace) {
  Json steps = Json::array();
  for (const auto& event : trace.events) {
    if (event.call) {
      steps.push_back(callJson(script, event));
      continue;
    }
    const auto& place = script.places[*event.place];
    const char* const type = place.is('r')   ? "return"
                             : place.is('t') ? "condition"
                             : place.is('o') ? "operand"
                             : place.is('w') ? "switch"
                             : place.is('k') ? "case"
                                             : nullptr;
    if (type == nullptr) continue;
    Json step{{"type", type}, {"at", placeJson(script, event.place)}, {"value", event.value}};
    if (place.is('k')) {
      step["matches"] = event.matches ? Json(*event.matches) : Json();
    } else if (!place.is('w')) {
      step["truthy"] = event.truthy;
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

Json jsonOf(const TracedScript& script, const TracedAnswer& asked) {
  auto json = client::jsonOf(asked.answer, true);
  const auto cost = costOf(asked.trace);
  json["steps"] = stepsJson(script.script(), asked.trace);
  json["decided"] = placeJson(script.script(), asked.decidedBy);
  json["cost"] = {{"microseconds", asked.took.count()},
                  {"calls", cost.calls},
                  {"call_microseconds", cost.callMicroseconds},
                  {"lookups", cost.lookups},
                  {"lookup_microseconds", cost.lookupMicroseconds}};
  json["different"] = asked.different ? Json(*asked.different) : Json();
  json["notes"] = notesOf(script, asked);
  return json;
}

ExitStatus explain(const ExplainArguments& arguments, const pac_engine::Options& options) {
  TracedScript script(readChosenScript(arguments.script), arguments.script.file, options);
  Json all = Json::array();
  bool allAnswered = true;
  // On a terminal, the explanations themselves show the progress.
  Progress progress(arguments.asked.urls.size(), arguments.json || isatty(STDOUT_FILENO) != 1);
  for (const auto& url : arguments.asked.urls) {
    const auto asked = script.ask(url, arguments.host);
    progress.step();
    allAnswered = allAnswered && asked.answer.result.has_value();
    if (arguments.json) {
      all.push_back(jsonOf(script, asked));
    } else {
      TextReport(script, asked).print();
    }
  }
  progress.end();
  if (arguments.json) printJson(all);
  return allAnswered ? kAnswered : kNoAnswer;
}

}  // namespace

void addPacExplain(CLI::App& pac, Action& action) {
  auto* const command =
      pac.add_subcommand("explain", "Shows what leads a PAC script to its answers.");
  const auto arguments = std::make_shared<ExplainArguments>();
  addScriptFile(*command, arguments->script);
  addCurrentScript(*command, arguments->script);
  addUrlsOrLog(*command, arguments->asked);
  addUrlOption(*command, arguments->asked);
  addText(*command, "--host", "HOST", arguments->host,
          "Second argument of FindProxyForURL, for\nall URLs; by default the host of each,\nas the "
          "daemon finds it");
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(std::string(kPacExplainFooter) +
                  statusHelp({{kAnswered, "all URLs got an answer"},
                              {kNoAnswer, "at least one URL got no answer"}},
                             kScriptStatuses));
  command->callback([arguments, command, &action] {
    const auto leading = settleScript(arguments->script);
    checkStandardInput(arguments->script, arguments->asked.file.value_or(""));
    addFurtherUrls(*command, arguments->asked, leading);
    requireUrls(arguments->asked);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return explain(*arguments, options);
    };
  });
}

}  // namespace client
