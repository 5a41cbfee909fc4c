// What the processes of the workbench report, read from their JSON. They have read a foreign
// script, so a report may hold anything. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// One place of a script; see engine/worker/workbench/instrument.js.
struct Place {
  std::string kind;        ///< letters, one for each thing that the place is
  std::size_t line = 0;    ///< from 1
  std::size_t column = 0;  ///< from 1, in UTF-16 units
  std::size_t lastLine = 0;
  std::string source;  ///< in one line, cut; empty for statements
  std::size_t function = 0;
  int owner = -1;  ///< the place that decides whether this one is reached
  bool branch = false;

  bool is(char letter) const { return kind.find(letter) != std::string::npos; }
};

struct ScriptFunction {
  std::string name;  ///< empty for the script itself
  std::size_t line = 0;
  std::size_t lastLine = 0;
};

/// A remark of the parser: what it does not look into.
struct ScriptNote {
  std::size_t line = 0;
  std::string text;
};

/// A script that notes what it does.
struct InstrumentedScript {
  std::string text;  ///< for a worker that traces
  std::vector<Place> places;
  std::vector<ScriptFunction> functions;
  std::vector<ScriptNote> notes;
  std::string source;  ///< decoded, with "\n" as line ends
};

/// A name that a helper asked for.
struct TracedLookup {
  std::string name;
  std::vector<std::string> addresses;
  std::int64_t microseconds = 0;
  bool isNew = false;  ///< the first time in this evaluation; later ones cost nothing
};

/// A call of a helper.
struct TracedCall {
  std::size_t depth = 0;  ///< 0 if no other helper has made it
  std::string name;
  std::vector<std::string> arguments;  ///< as a script would write them
  std::optional<std::string> result;   ///< nothing if it threw
  std::int64_t microseconds = 0;       ///< with the calls that it made
  std::vector<TracedLookup> lookups;
};

/// A value or a call, in the order in which they were known.
struct TracedEvent {
  std::optional<std::size_t> place;  ///< of a call: where it stands, if its name stands there
  std::string value;                 ///< as a script would write it; empty for a call
  bool truthy = false;
  std::optional<TracedCall> call;
};

/// How often a place was reached, or had which truth.
struct PlaceCount {
  std::size_t place = 0;
  std::uint64_t reached = 0;
  std::uint64_t truthy = 0;
  std::uint64_t falsy = 0;
};

struct Trace {
  std::vector<TracedEvent> events;
  std::vector<PlaceCount> counts;
  bool cut = false;      ///< there were more events than a report has
  bool ownText = false;  ///< the script has read the text of a function
};

/// Highest number of a place, line or column; a script has at most 512,000 characters.
inline constexpr std::uint64_t kMostNumber = 0x7FFFFFFF;

/// A whole number of a report. Throws std::out_of_range for anything else, and above `most`.
std::uint64_t wholeNumber(const nlohmann::json& value, std::uint64_t most = kMostNumber);

/// The report of the command "instrument". Each number of a place or function in the result is one
/// of its own. Throws std::exception if `report` has another form.
InstrumentedScript instrumentedOf(const nlohmann::json& report);

/// The report of the command "trace" about a script with these places. Each number of a place in
/// the result is one of them. Throws std::exception if `report` has another form.
Trace traceOf(const nlohmann::json& report, const std::vector<Place>& places);

}  // namespace client
