// Reads the JSON reports of the workbench's processes. These processes have read a foreign script,
// so a report may contain anything. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// One place of a script. engine/worker/workbench/instrument.js defines what a place is.
struct Place {
  std::string kind;        ///< one letter for each property of the place
  std::size_t line = 0;    ///< from 1
  std::size_t column = 0;  ///< from 1, in UTF-16 units
  std::size_t lastLine = 0;
  std::string source;  ///< the source text, shortened to one line; empty for statements
  std::size_t function = 0;
  int owner = -1;  ///< the place that decides whether this place is reached
  bool branch = false;
  std::vector<std::string> callees;  ///< for a return: the functions whose results it can return

  bool is(char letter) const { return kind.find(letter) != std::string::npos; }
};

/// Returns "return VALUE" for the return at `place`, or "return" if it has no value.
std::string shownReturn(const Place& place);

struct ScriptFunction {
  std::string name;  ///< as in its calls; ".name" for a method; empty for the script itself
  std::size_t line = 0;
  std::size_t lastLine = 0;
};

/// A note of the parser about a part of the script that the parser does not check.
struct ScriptNote {
  std::size_t line = 0;
  std::string text;
};

/// A script with added code that records what the script does.
struct InstrumentedScript {
  std::string text;  ///< the instrumented text, for a tracing worker
  std::vector<Place> places;
  std::vector<ScriptFunction> functions;
  std::vector<ScriptNote> notes;
  std::string source;  ///< decoded, with "\n" as line ends
};

/// A name that a helper looked up.
struct TracedLookup {
  std::string name;
  std::vector<std::string> addresses;
  std::int64_t microseconds = 0;
  /// The evaluation's first lookup of this name in this family; later lookups cost nothing.
  bool isNew = false;
  bool isRefused = false;  ///< the evaluation had looked up its maximum number of names before
};

/// A call of a helper.
struct TracedCall {
  std::size_t depth = 0;  ///< 0 if no other helper called it
  std::string name;
  std::vector<std::string> arguments;  ///< in JavaScript syntax
  std::optional<std::string> result;   ///< nothing if the call threw
  std::int64_t microseconds = 0;       ///< includes the calls that the helper made
  std::vector<TracedLookup> lookups;
};

/// A value or a call. Events are in the order in which their results were known.
struct TracedEvent {
  /// The place of the value. A call has a place only if the script names the helper at this place.
  std::optional<std::size_t> place;
  std::string value;  ///< in JavaScript syntax; empty for a call
  bool truthy = false;
  /// For the test of a case: whether the case was entered after this test. It has no value if the
  /// record ends here.
  std::optional<bool> matches;
  std::optional<TracedCall> call;
  bool isAfterOthers = false;  ///< events directly before this event are missing in the report
};

/// How often a place was reached, and how often its value was true or false.
struct PlaceCount {
  std::size_t place = 0;
  std::uint64_t reached = 0;
  std::uint64_t truthy = 0;
  std::uint64_t falsy = 0;
};

struct Trace {
  std::vector<TracedEvent> events;
  std::vector<PlaceCount> counts;
  bool cut = false;      ///< there were more events than a report can contain
  bool ownText = false;  ///< the script has read the text of a function
  /// The number of helper calls of the script, and their total time. All calls count, even if the
  /// events are cut.
  std::uint64_t helperCalls = 0;
  std::uint64_t helperNanoseconds = 0;
};

/// Highest number of a place, line or column. A script has at most 512,000 characters.
inline constexpr std::size_t kMostNumber = 0x7FFFFFFF;

/// A whole number in a report. Throws std::out_of_range for any other value, and for a number above
/// `most`.
std::size_t wholeNumber(const nlohmann::json& value, std::size_t most = kMostNumber);

/// Reads the report of the command "instrument". Each place or function number in the result is
/// valid. Throws std::exception if `report` has another form.
InstrumentedScript instrumentedOf(const nlohmann::json& report);

/// Reads the report of the command "trace" for a script with these places. Each place number in the
/// result is valid. Throws std::exception if `report` has another form.
Trace traceOf(const nlohmann::json& report, const std::vector<Place>& places);

}  // namespace client
