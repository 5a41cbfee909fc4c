#include "client/ctl/commands/pac_cover_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/coverage.h"
#include "client/ctl/commands/coverage_page.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPacCoverFooter = R"(Output:
  statements  how many of them the script executed, its loading included
  branches    how many outcomes of conditions, and how many entered cases
  rules       how many returns
  line N      a rule that no URL reached. It is dead (no URL can reach it),
              shadowed (earlier rules answer all URLs that were made for its
              condition, at any time and on any network) or not hit (with a URL
              that reaches it, if one could be made from the texts in the
              script; for such URLs no name is looked up, and no alert is shown)
  note        code that is not instrumented; that not all URLs were tried: the
              command makes at most 1000 and tries them for at most 8 s
The file of -f is a list of URLs, or an access log of squid, tinyproxy or
proxymanager-relay. Of the relay also the page status.json is read. Each URL is
asked once. With --format json an object: file, statements, branches, rules,
missed, places, notes and urls. With --format html one page that loads nothing
and runs no script.

Exit status:
)";

struct CoverArguments {
  ChosenScript script;
  UrlArguments asked;
  SimulatedEnvironment environment;
  std::string format = "text";
};

Json shareJson(const Share& share) {
  return {{"reached", share.reached}, {"all", share.all}};
}

Json missJson(const InstrumentedScript& script, const MissedRule& rule) {
  const auto& place = script.places[rule.place];
  Json json{{"line", place.line}, {"column", place.column}, {"source", place.source}};
  json["dead"] = rule.isDead;
  json["reached_by"] = rule.reachedBy.empty() ? Json() : Json(withoutPassword(rule.reachedBy));
  json["shadowed_by_line"] =
      rule.shadow && rule.reachedBy.empty() ? Json(script.places[*rule.shadow].line) : Json();
  json["shadowed_url"] =
      rule.shadowedUrl.empty() ? Json() : Json(withoutPassword(rule.shadowedUrl));
  return json;
}

Json jsonOf(const std::string& file, const InstrumentedScript& script, const Coverage& coverage) {
  Json json{{"file", file}};
  json["statements"] = shareJson(coverage.statements);
  json["branches"] = shareJson(coverage.branches);
  json["rules"] = shareJson(coverage.rules);
  json["missed"] = Json::array();
  for (const auto& rule : coverage.missed) json["missed"].push_back(missJson(script, rule));
  json["places"] = Json::array();
  for (const auto& total : coverage.places) {
    const auto& place = script.places[total.place];
    // A switch or a case compares its value, so it does not matter whether the value is true or
    // false.
    const bool isSwitch = place.is('w') || place.is('k');
    json["places"].push_back({{"kind", place.kind},
                              {"line", place.line},
                              {"column", place.column},
                              {"reached", isSwitch ? total.truthy + total.falsy : total.reached},
                              {"true", isSwitch ? 0 : total.truthy},
                              {"false", isSwitch ? 0 : total.falsy}});
  }
  json["notes"] = coverageNotes(script, coverage);
  json["urls"] = Json::array();
  for (const auto& url : coverage.urls) {
    json["urls"].push_back(
        {{"url", withoutPassword(url.url)},
         {"times", url.times},
         {"result", url.result ? Json(*url.result) : Json()},
         {"error", url.result ? Json() : Json(url.error)},
         {"line", url.decidedBy ? Json(script.places[*url.decidedBy].line) : Json()},
         {"different", url.isDifferent}});
  }
  return json;
}

void printText(const std::string& file, const InstrumentedScript& script,
               const Coverage& coverage) {
  std::vector<std::pair<std::string, std::string>> lines{
      {"statements", shownShare(coverage.statements)},
      {"branches", shownShare(coverage.branches)},
      {"rules", shownShare(coverage.rules)}};
  for (const auto& rule : coverage.missed) {
    const auto& place = script.places[rule.place];
    lines.emplace_back("line " + std::to_string(place.line),
                       shownReturn(place) + "  " + shownMiss(script, rule));
  }
  for (const auto& note : coverageNotes(script, coverage)) lines.emplace_back("note", note);
  for (const auto& url : coverage.urls)
    if (url.isDifferent)
      lines.emplace_back("wrong",
                         "the instrumented script has another answer: " + withoutPassword(url.url));
  std::vector<Row> rows;
  for (const auto& [name, value] : lines) rows.push_back({name, value});
  printBlock(file, rows);
}

ExitStatus cover(const CoverArguments& arguments, const pac_engine::Options& options) {
  const auto bytes = readChosenScript(arguments.script);
  const auto file = shownName(arguments.script.file);
  TracedScript script(bytes, arguments.script.file, options, {TraceDetail::kCounts, false});
  const auto parser = openParser(bytes, file);
  const auto coverage = coverageOf(script, *parser, file, arguments.asked.urls);
  if (arguments.format == "json") {
    printJson(jsonOf(file, script.script(), coverage));
  } else if (arguments.format == "html") {
    client::printText(coveragePage(file, script.script(), coverage));
  } else {
    printText(file, script.script(), coverage);
  }
  return kAnswered;
}

}  // namespace

void addPacCover(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("cover", "Shows what URLs reach in a PAC script.");
  const auto arguments = std::make_shared<CoverArguments>();
  addScriptFile(*command, arguments->script);
  addCurrentScript(*command, arguments->script);
  addUrlsOrLog(*command, arguments->asked);
  addUrlOption(*command, arguments->asked);
  addEnvironmentOptions(*command, arguments->environment);
  command->add_option("--format", arguments->format, "text, json or html; by default text")
      ->check(CLI::IsMember({"text", "json", "html"}))
      ->option_text("FORMAT");
  command->footer(std::string(kPacCoverFooter) +
                  statusHelp({{kAnswered, "the coverage is printed"}}, kScriptStatuses));
  command->callback([arguments, command, &action] {
    const auto leading = settleScript(arguments->script);
    checkStandardInput(arguments->script, arguments->asked.file.value_or(""));
    addFurtherUrls(*command, arguments->asked, leading);
    requireUrls(arguments->asked);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return cover(*arguments, options);
    };
  });
}

}  // namespace client
