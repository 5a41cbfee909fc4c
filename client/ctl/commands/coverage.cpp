#include "client/ctl/commands/coverage.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "client/ctl/failure.h"

namespace client {

namespace {

/// Most URLs that are made for the rules which the list misses.
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
      coverage.missed.push_back({i, places[i].is('d'), {}, {}, std::nullopt});
    }
  }
}

/// Whether `line` is a part of the condition that decides whether the rule is reached.
bool isOfCondition(const std::vector<Place>& places, std::size_t rule, std::size_t line) {
  const int owner = places[rule].owner;
  if (owner < 0) return false;
  const auto& test = places[static_cast<std::size_t>(owner)];
  return places[rule].branch && test.line <= line && line <= test.lastLine;
}

/// Tries to reach the missed rules with URLs that are made from the script.
void tryMissed(Coverage& coverage, TracedScript& script, pac_engine::Engine& parser,
               const std::string& file) {
  if (coverage.missed.empty()) return;
  const auto report = askParser(parser, "urls", {{"most", kMostMade}}, file);
  const auto& places = script.script().places;
  for (const auto& row : report.at("urls")) {
    const auto url = row.at(0).get<std::string>();
    const auto line = row.at(1).get<std::size_t>();
    const auto asked = script.ask(url, std::nullopt);
    for (auto& rule : coverage.missed) {
      const bool isHit = std::any_of(asked.trace.counts.begin(), asked.trace.counts.end(),
                                     [&](const auto& total) { return total.place == rule.place; });
      if (isHit && rule.reachedBy.empty()) rule.reachedBy = url;
      if (!isHit && !rule.shadow && asked.decidedBy && *asked.decidedBy < rule.place &&
          isOfCondition(places, rule.place, line)) {
        rule.shadow = asked.decidedBy;
        rule.shadowedUrl = url;
      }
    }
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
  std::map<std::string, std::size_t> known;
  for (const auto& url : urls) {
    const auto [entry, isNew] = known.emplace(url, coverage.urls.size());
    if (isNew) {
      auto asked = script.ask(url, std::nullopt);
      add(coverage.places, asked.trace);
      coverage.urls.push_back({url, 0, asked.answer.result, asked.answer.error.value_or(""),
                               asked.decidedBy, asked.different.has_value()});
    }
    ++coverage.urls[entry->second].times;
  }
  addShares(coverage, places);
  tryMissed(coverage, script, parser, file);
  return coverage;
}

}  // namespace client
