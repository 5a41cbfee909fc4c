#include "client/ctl/commands/workbench_report.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace client {

namespace {

using Json = nlohmann::json;

/// Longest time of a call: more than an evaluation may take.
constexpr std::uint64_t kMostMicroseconds = 1'000'000'000'000;
constexpr std::uint64_t kMostNanoseconds = 1000 * kMostMicroseconds;
constexpr std::uint64_t kMostTimes = std::numeric_limits<std::uint64_t>::max();
/// Deepest nesting of helper calls: more than the stack of a script allows.
constexpr std::size_t kMostDepth = 100'000;

// Refuses a fraction and a negative number, which the JSON library would convert to a whole number.
std::uint64_t largeNumber(const Json& value, std::uint64_t most) {
  if (!value.is_number_unsigned() || value.get<std::uint64_t>() > most) {
    throw std::out_of_range("number");
  }
  return value.get<std::uint64_t>();
}

std::string textOf(const Json& value) {
  return value.get<std::string>();
}

Place placeOf(const Json& row) {
  Place place;
  place.kind = textOf(row.at(0));
  place.line = wholeNumber(row.at(1));
  place.column = wholeNumber(row.at(2));
  place.lastLine = wholeNumber(row.at(3));
  place.source = textOf(row.at(4));
  place.function = wholeNumber(row.at(5));
  place.owner = row.at(6) == -1 ? -1 : static_cast<int>(wholeNumber(row.at(6)));
  place.branch = row.at(7).get<bool>();
  if (row.size() > 8) place.callees = row.at(8).get<std::vector<std::string>>();
  return place;
}

/// Reads a time. A time above kMostMicroseconds is refused, so the sum over a whole report cannot
/// overflow.
std::int64_t microsecondsOf(const Json& value) {
  return static_cast<std::int64_t>(largeNumber(value, kMostMicroseconds));
}

TracedLookup lookupOf(const Json& row) {
  TracedLookup lookup;
  lookup.name = row.at(0).get<std::string>();
  lookup.addresses = row.at(1).get<std::vector<std::string>>();
  lookup.microseconds = microsecondsOf(row.at(2));
  lookup.isNew = row.at(3).get<bool>();
  return lookup;
}

TracedCall callOf(const Json& row) {
  TracedCall call;
  call.depth = wholeNumber(row.at(1), kMostDepth);
  call.name = row.at(2).get<std::string>();
  call.arguments = row.at(3).get<std::vector<std::string>>();
  if (!row.at(4).is_null()) call.result = row.at(4).get<std::string>();
  call.microseconds = microsecondsOf(row.at(5));
  for (const auto& lookup : row.at(6)) call.lookups.push_back(lookupOf(lookup));
  return call;
}

/// Sets the place of the last finished call of a helper, if `source` names this helper at `place`.
void placeCall(std::vector<TracedEvent>& events, std::size_t place, const std::string& source) {
  const auto found = std::find_if(events.rbegin(), events.rend(), [&](const TracedEvent& event) {
    return event.call && event.call->depth == 0 && !event.place &&
           source.compare(0, event.call->name.size(), event.call->name) == 0;
  });
  if (found != events.rend()) found->place = place;
}

/// Reads the entries of the cases of a switch. An entry directly after the test of its case means
/// that this test has matched. Any further entry was reached from the case before it.
class CaseEntries {
 public:
  /// Notes that a case was entered. @param test the place of the case's test; -1 for `default`
  void note(std::vector<TracedEvent>& events, const Json& test) {
    const bool isFirst = events.size() != mNoted;
    mNoted = events.size();
    if (test == -1) return;
    const auto place = wholeNumber(test);
    if (isFirst && events.back().matches && events.back().place == place)
      events.back().matches = true;
  }

 private:
  std::size_t mNoted = 0;  ///< the number of events before the last entry
};

}  // namespace

std::size_t wholeNumber(const Json& value, std::size_t most) {
  return static_cast<std::size_t>(largeNumber(value, most));
}

std::string shownReturn(const Place& place) {
  const bool isBare = place.source == "return" || place.source == "return;";
  return isBare ? "return" : "return " + place.source;
}

InstrumentedScript instrumentedOf(const Json& report) {
  InstrumentedScript script;
  script.text = textOf(report.at("script"));
  script.source = textOf(report.at("source"));
  for (const auto& row : report.at("places")) script.places.push_back(placeOf(row));
  for (const auto& row : report.at("functions")) {
    script.functions.push_back({textOf(row.at(0)), wholeNumber(row.at(1)), wholeNumber(row.at(2))});
  }
  for (const auto& row : report.at("notes")) {
    script.notes.push_back({wholeNumber(row.at(0)), textOf(row.at(1))});
  }
  const auto count = static_cast<int>(script.places.size());
  for (const auto& place : script.places) {
    if (place.owner >= count || place.function >= script.functions.size()) {
      throw std::out_of_range("place");
    }
  }
  return script;
}

Trace traceOf(const Json& report, const std::vector<Place>& places) {
  Trace trace;
  const auto& counts = report.at("counts");
  for (std::size_t i = 0; i < counts.size(); i += 4) {
    const PlaceCount count{wholeNumber(counts.at(i)), largeNumber(counts.at(i + 1), kMostTimes),
                           largeNumber(counts.at(i + 2), kMostTimes),
                           largeNumber(counts.at(i + 3), kMostTimes)};
    if (count.place >= places.size()) throw std::out_of_range("place");
    trace.counts.push_back(count);
  }
  CaseEntries entries;
  for (const auto& row : report.at("events")) {
    TracedEvent event;
    const auto kind = row.at(0).get<std::string>();
    if (kind == "e") {
      entries.note(trace.events, row.at(2));
      continue;
    }
    if (kind == "c") {
      event.call = callOf(row);
    } else {
      event.place = wholeNumber(row.at(1));
      event.value = row.at(2).get<std::string>();
      event.truthy = row.at(3).get<bool>();
      event.isAfterOthers = row.size() > 4 && row.at(4).get<bool>();
      const auto& place = places.at(*event.place);
      if (place.is('h')) placeCall(trace.events, *event.place, place.source);
      if (place.is('k')) event.matches = false;
    }
    trace.events.push_back(std::move(event));
  }
  trace.cut = report.at("cut").get<bool>();
  if (trace.cut && !trace.events.empty()) trace.events.back().matches.reset();
  trace.ownText = report.at("ownText").get<bool>();
  trace.helperCalls = largeNumber(report.at("helpers").at(0), kMostTimes);
  trace.helperNanoseconds = largeNumber(report.at("helpers").at(1), kMostNanoseconds);
  return trace;
}

}  // namespace client
