#include "client/ctl/commands/coverage.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "client/ctl/failure.h"
#include "client/ctl/terminal/progress.h"

namespace client {

namespace {

/// Maximum number of URLs that are made for the missed rules.
constexpr std::size_t kMostMade = 1000;

void add(std::vector<PlaceCount>& places, const Trace& trace) {
  for (const auto& count : trace.counts) {
    auto& total = places[count.place];
    total.reached += count.reached;
    total.truthy += count.truthy;
    total.falsy += count.falsy;
  }
}

void count(Share& share, std::uint64_t reached) {
  ++share.all;
  share.reached += reached > 0 ? 1 : 0;
}

void addShares(Coverage& coverage, const std::vector<Place>& places) {
  for (std::size_t i = 0; i < places.size(); ++i) {
    const auto& total = coverage.places[i];
    if (places[i].is('s')) count(coverage.statements, total.reached);
    if (places[i].is('c')) count(coverage.branches, total.reached);
    if (places[i].is('t')) {
      count(coverage.branches, total.truthy);
      count(coverage.branches, total.falsy);
    }
    if (!places[i].is('r')) continue;
    count(coverage.rules, total.truthy + total.falsy);
    if (total.truthy + total.falsy == 0) {
      coverage.missed.push_back({i, places[i].is('d'), {}, {}, std::nullopt, false});
    }
  }
}

/// Line and column of the test that must be true before the rule is reached. {0, 0} if there is no
/// such test.
std::pair<std::size_t, std::size_t> testOf(const std::vector<Place>& places, std::size_t rule) {
  const int owner = places[rule].owner;
  if (owner < 0 || !places[rule].branch) return {0, 0};
  const auto& test = places[static_cast<std::size_t>(owner)];
  return test.is('t') ? std::pair(test.line, test.column) : std::pair<std::size_t, std::size_t>();
}

/// For each place, whether `trace` has reached it. The table is made once for each URL, because a
/// search for each rule would take seconds in a large script.
std::vector<bool> reachedBy(const Trace& trace, std::size_t places) {
  std::vector<bool> reached(places);
  for (const auto& total : trace.counts) reached[total.place] = true;
  return reached;
}

/// Whether `tests`, a list of places in a report about made URLs, has the test of the rule.
bool isMadeFor(const MissedRule& rule, const std::vector<Place>& places,
               const nlohmann::json& tests) {
  const auto test = testOf(places, rule.place);
  return std::any_of(tests.begin(), tests.end(), [&](const nlohmann::json& row) {
    return test == std::pair(row.at(0).get<std::size_t>(), row.at(1).get<std::size_t>());
  });
}

/// Updates a missed rule with the result of a made URL. `tests` are the tests for which the URL was
/// made.
void tryRule(MissedRule& rule, const std::vector<Place>& places, const TracedAnswer& asked,
             const std::vector<bool>& reached, const std::string& url,
             const nlohmann::json& tests) {
  if (reached[rule.place]) {
    if (rule.reachedBy.empty()) rule.reachedBy = url;
    return;
  }
  if (!isMadeFor(rule, places, tests)) return;
  const int owner = places[rule.place].owner;
  rule.mayBeReached = rule.mayBeReached || (owner >= 0 && reached[static_cast<std::size_t>(owner)]);
  if (!rule.shadow && asked.decidedBy && *asked.decidedBy < rule.place) {
    rule.shadow = asked.decidedBy;
    rule.shadowedUrl = url;
  }
}

/// Notes that a URL which was made for `tests` shows nothing about the shadows of their rules.
void noteUnknown(Coverage& coverage, const std::vector<Place>& places,
                 const nlohmann::json& tests) {
  for (auto& rule : coverage.missed)
    rule.mayBeReached = rule.mayBeReached || isMadeFor(rule, places, tests);
}

/// Whether `place` is the call of a helper whose result depends on the device, its network or the
/// time. isInNet looks up a host name, and needs no lookup for an address.
bool asksDevice(const Place& place, bool isAddress) {
  const auto name = std::string_view(place.source).substr(0, place.source.find_first_of(" ("));
  for (const auto* const helper :
       {"dnsResolve", "dnsResolveEx", "isResolvable", "isResolvableEx", "myIpAddress",
        "myIpAddressEx", "weekdayRange", "dateRange", "timeRange"}) {
    if (name == helper) return true;
  }
  return name == "isInNet" && !isAddress;
}

/// Whether the answer may be different on another device, in another network or at another time.
/// This is also assumed if the script called a helper under another name.
bool dependsOnDevice(const Trace& trace, const std::vector<Place>& places,
                     const std::string& host) {
  const bool isAddress = host.find_first_not_of("0123456789.") == std::string::npos;
  std::uint64_t calls = 0;
  for (const auto& total : trace.counts) {
    if (!places[total.place].is('h')) continue;
    calls += total.truthy + total.falsy;
    if (asksDevice(places[total.place], isAddress)) return true;
  }
  return trace.helperCalls > calls;
}

/// Tries to reach the missed rules with URLs that are made from the script.
void tryMissed(Coverage& coverage, const TracedScript& script, pac_engine::Engine& parser,
               const std::string& file) {
  if (coverage.missed.empty()) return;
  const auto report = askParser(parser, "urls", {{"most", kMostMade}}, file);
  const auto& places = script.script().places;
  auto made = script.forMadeUrls();
  const auto& source = script.script().source;
  const bool isAllOfDevice = source.find("new Date") != std::string::npos ||
                             source.find("Date.now") != std::string::npos ||
                             dependsOnDevice(script.load(), places, {});
  const auto end = std::chrono::steady_clock::now() + kMadeTime;
  coverage.madeCut = report.at("cut").get<bool>();
  noteUnknown(coverage, places, report.at("cutTests"));
  Progress progress(report.at("urls").size());
  for (const auto& row : report.at("urls")) {
    if (std::chrono::steady_clock::now() >= end) {
      coverage.madeCut = true;
      noteUnknown(coverage, places, row.at(1));
      continue;
    }
    const auto url = row.at(0).get<std::string>();
    const auto asked = made.ask(url, std::nullopt);
    ++coverage.made;
    const auto reached = reachedBy(asked.trace, places.size());
    for (auto& rule : coverage.missed) tryRule(rule, places, asked, reached, url, row.at(1));
    // In another environment, the same URL may reach its rule.
    if (isAllOfDevice || dependsOnDevice(asked.trace, places, asked.answer.host))
      noteUnknown(coverage, places, row.at(1));
    progress.step();
  }
  for (auto& rule : coverage.missed) {
    if (!rule.mayBeReached && rule.reachedBy.empty()) continue;
    rule.shadow.reset();
    rule.shadowedUrl.clear();
  }
}

/// Asks the script about each URL once.
void askAll(Coverage& coverage, TracedScript& script, const std::vector<std::string>& urls) {
  std::map<std::string, std::size_t> known;
  Progress progress(urls.size());
  for (const auto& url : urls) {
    const auto [entry, isNew] = known.emplace(url, coverage.urls.size());
    if (isNew) {
      auto asked = script.ask(url, std::nullopt);
      add(coverage.places, asked.trace);
      coverage.ownText = coverage.ownText || asked.trace.ownText;
      coverage.urls.push_back({url, 0, asked.answer.result, asked.answer.error.value_or(""),
                               asked.decidedBy, asked.different.has_value()});
    }
    ++coverage.urls[entry->second].times;
    progress.step();
  }
}

}  // namespace

Coverage coverageOf(TracedScript& script, pac_engine::Engine& parser, const std::string& file,
                    const std::vector<std::string>& urls) {
  Coverage coverage;
  const auto& places = script.script().places;
  coverage.places.resize(places.size());
  for (std::size_t i = 0; i < places.size(); ++i) coverage.places[i].place = i;
  add(coverage.places, script.load());
  coverage.ownText = script.load().ownText;
  askAll(coverage, script, urls);
  addShares(coverage, places);
  tryMissed(coverage, script, parser, file);
  return coverage;
}

}  // namespace client
