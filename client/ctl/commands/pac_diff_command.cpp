#include "client/ctl/commands/pac_diff_command.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/traced_script.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/progress.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPacDiffFooter = R"(Output:
  The number of URLs, and of those that the two scripts answer differently.
  Then a block for each pair of rules and answers that differ: the line of OLD
  and its answer, those of NEW, the number of URLs, and the first of them.
  If no URL is given, the command makes URLs from the hosts, networks and
  patterns in both scripts: at most 2000 from each, and it asks them for at most
  30 s. A last line reports if there were more. For these URLs no name is looked
  up and no alert is shown. A difference that depends on a name, on the time of
  day or on another URL is then not found; --at sets another time.
  With --json an object: old, new, urls, different, generated (whether the URLs
  were made from the scripts), cut (whether not all of these were asked) and
  groups.

Exit status:
)";

/// Maximum number of URLs that are made from each of the two scripts.
constexpr std::size_t kMostMade = 2000;
/// Time limit for all made URLs together. After this time, the command asks about no further URL.
constexpr std::chrono::seconds kMadeDiffTime{30};
constexpr std::size_t kMostShown = 3;

struct DiffArguments {
  std::string oldFile;
  std::string newFile;
  UrlArguments asked;
  SimulatedEnvironment environment;
  bool json = false;
};

/// The answer of one script for a URL: the place of the return that decided, and the answer or the
/// reason why there is no answer.
struct Decision {
  std::size_t line = 0;  ///< 0 if no return decided
  std::size_t column = 0;
  std::string text;
  bool isAnswered = false;

  /// Whether the scripts give the same answer. The same error counts as the same answer, even if
  /// the error is in different lines of the two scripts.
  bool isSame(const Decision& other) const {
    return isAnswered == other.isAnswered && withoutLine() == other.withoutLine();
  }
  /// Decisions are in the same group if these values are the same.
  auto key() const { return std::tuple(line, column, text); }

 private:
  std::string withoutLine() const {
    static const std::regex kLine("line [0-9]+: ");
    return isAnswered
               ? text
               : std::regex_replace(text, kLine, "", std::regex_constants::format_first_only);
  }
};

Decision decisionOf(TracedScript& script, const std::string& url) {
  const auto asked = script.ask(url, std::nullopt);
  const auto place = asked.decidedBy ? script.script().places[*asked.decidedBy] : Place();
  const auto& answer = asked.answer;
  if (answer.result) return {place.line, place.column, *answer.result, true};
  return {place.line, place.column, "no answer: " + answer.error.value_or(""), false};
}

/// Adds the URLs that are made from `script`. @return whether more than kMostMade URLs can be made
bool addMade(std::vector<std::string>& urls, std::set<std::string>& known, std::string_view script,
             const std::string& file) {
  const auto parser = openParser(script, file);
  const auto report = askParser(*parser, "urls", {{"most", kMostMade}}, file);
  for (const auto& row : report.at("urls")) {
    auto url = row.at(0).get<std::string>();
    if (known.insert(url).second) urls.push_back(std::move(url));
  }
  return report.at("cut").get<bool>();
}

/// A group of URLs. In each of the two scripts, the same rule decided for all of them, and the
/// answer was the same.
struct Group {
  Decision before;  ///< the decision of the old script
  Decision after;   ///< the decision of the new script
  std::vector<std::string> urls;
};

using GroupKey = decltype(std::declval<Decision>().key());
using Groups = std::map<std::pair<GroupKey, GroupKey>, Group>;

std::string shown(const Decision& decision) {
  return (decision.line == 0 ? "" : "line " + std::to_string(decision.line) + ": ") +
         (decision.text.empty() ? "(empty)" : decision.text);
}

void printGroups(const Groups& groups, const std::string& summary) {
  printLine(summary);
  for (const auto& [keys, group] : groups) {
    const auto& urls = group.urls;
    std::vector<Row> rows{{"old", shown(group.before), Tone::kBad},
                          {"new", shown(group.after), Tone::kGood}};
    for (std::size_t i = 0; i < std::min(urls.size(), kMostShown); ++i)
      rows.push_back({"url", withoutPassword(urls[i])});
    printBlock(std::to_string(urls.size()) + (urls.size() == 1 ? " URL" : " URLs"), rows);
  }
}

Json decisionJson(const Decision& decision) {
  return {{"line", decision.line == 0 ? Json() : Json(decision.line)}, {"answer", decision.text}};
}

Json groupsJson(const Groups& groups) {
  Json json = Json::array();
  for (const auto& [keys, group] : groups) {
    Json shownUrls = Json::array();
    for (const auto& url : group.urls) shownUrls.push_back(withoutPassword(url));
    json.push_back({{"old", decisionJson(group.before)},
                    {"new", decisionJson(group.after)},
                    {"urls", std::move(shownUrls)}});
  }
  return json;
}

struct Differences {
  Groups groups;
  std::size_t asked = 0;
  std::size_t different = 0;
};

/// Asks both scripts about `urls`. If the URLs are made, the function stops after kMadeDiffTime.
Differences compare(TracedScript& oldScript, TracedScript& newScript,
                    const std::vector<std::string>& urls, bool areMade) {
  Differences found;
  Progress progress(urls.size());
  const auto end = std::chrono::steady_clock::now() + kMadeDiffTime;
  for (const auto& url : urls) {
    if (areMade && std::chrono::steady_clock::now() >= end) break;
    ++found.asked;
    const auto before = decisionOf(oldScript, url);
    const auto after = decisionOf(newScript, url);
    progress.step();
    if (before.isSame(after)) continue;
    ++found.different;
    const std::pair keys{before.key(), after.key()};
    auto& group = found.groups.try_emplace(keys, Group{before, after, {}}).first->second;
    group.urls.push_back(url);
  }
  return found;
}

ExitStatus diff(const DiffArguments& arguments, const pac_engine::Options& options) {
  const auto oldBytes = readScript(arguments.oldFile);
  const auto newBytes = readScript(arguments.newFile);
  const bool areMade = arguments.asked.urls.empty() && !arguments.asked.file;
  const TraceOptions tracing{TraceDetail::kReturns, areMade};
  TracedScript oldScript(oldBytes, arguments.oldFile, options, tracing);
  TracedScript newScript(newBytes, arguments.newFile, options, tracing);
  std::vector<std::string> urls;
  std::set<std::string> known;
  for (const auto& url : arguments.asked.urls)
    if (known.insert(url).second) urls.push_back(url);
  bool isCut = false;
  if (areMade) {
    isCut = addMade(urls, known, oldBytes, shownName(arguments.oldFile));
    isCut = addMade(urls, known, newBytes, shownName(arguments.newFile)) || isCut;
  }
  const auto [groups, asked, different] = compare(oldScript, newScript, urls, areMade);
  isCut = isCut || asked < urls.size();
  if (arguments.json) {
    printJson({{"old", arguments.oldFile},
               {"new", arguments.newFile},
               {"urls", asked},
               {"different", different},
               {"generated", areMade},
               {"cut", isCut},
               {"groups", groupsJson(groups)}});
  } else {
    printGroups(groups, std::to_string(different) + " of " + std::to_string(asked) +
                            (areMade ? " URLs made from the scripts" : " URLs") +
                            " are answered differently");
    if (isCut) printLine("Not all URLs that can be made from the scripts were asked.");
  }
  return different == 0 ? kAnswered : kNoAnswer;
}

}  // namespace

void addPacDiff(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("diff", "Shows where two PAC scripts differ.");
  const auto arguments = std::make_shared<DiffArguments>();
  command->add_option("OLD", arguments->oldFile, "The one PAC script")
      ->required()
      ->option_text(" ");
  command->add_option("NEW", arguments->newFile, "The other one; one of both may be \"-\"")
      ->required()
      ->option_text(" ");
  addUrlsOrLog(*command, arguments->asked);
  addUrlOption(*command, arguments->asked);
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(std::string(kPacDiffFooter) +
                  statusHelp({{kAnswered, "both answer all URLs alike"},
                              {kNoAnswer, "at least one URL is answered differently"}},
                             kScriptStatuses));
  command->callback([arguments, command, &action] {
    const bool isOldStandardInput = arguments->oldFile == "-";
    if (isOldStandardInput && arguments->newFile == "-") {
      throw CLI::ValidationError("NEW", "standard input holds the other script already");
    }
    if (arguments->asked.file == "-" && (isOldStandardInput || arguments->newFile == "-")) {
      throw CLI::ValidationError("-f", "standard input holds a script already");
    }
    addFurtherUrls(*command, arguments->asked);
    if (arguments->asked.file) requireUrls(arguments->asked);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return diff(*arguments, options);
    };
  });
}

}  // namespace client
