#include "client/ctl/commands/pac_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "client/ctl/commands/answer_json.h"
#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/pac_bench_command.h"
#include "client/ctl/commands/pac_cover_command.h"
#include "client/ctl/commands/pac_diff_command.h"
#include "client/ctl/commands/pac_explain_command.h"
#include "client/ctl/commands/pac_lint_command.h"
#include "client/ctl/commands/pac_test_command.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/progress.h"
#include "engine/pac_engine.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPacExamples = R"(Examples:
  proxymanagerctl pac check proxy.pac
  proxymanagerctl pac eval proxy.pac http://www.example.org/ https://intranet/
  proxymanagerctl pac eval --resolve www.example.org=192.0.2.7 \
      --my-ip 10.1.2.3 --at 2026-03-02T09:00 --tz Europe/Berlin \
      proxy.pac http://www.example.org/)";

constexpr const char* kEvalFooter = R"(Output:
  For each URL the host, the text that the script returned, and its entries.
  The daemon accepts DIRECT, PROXY and SOCKS in capitals; it drops others, such
  as HTTPS, SOCKS5 and unknown words. With --json one array that
  holds an object for each URL, in order, of the same form as "get --json":
    url       the URL as given, with its password hidden
    mode      off, manual, pacurl, wpad or local; null for pac eval
    host      the host that is asked about
    answered  whether there is an entry that the daemon gives
    result    the entries as text, or null
    entries   array of objects: text, kind (direct, http, https, socks4,
              socks4a, socks5, socks5h or unusable), proxy (its URL, or null)
              and dropped (true if the daemon leaves the entry out)
    error     why there is no result, or null
  The texts of alert() appear on standard error and in syslog.

The script is loaded once for all URLs, so its variables keep their values from
one URL to the next. The load may take 5 seconds, and each URL may, too. A URL
may have 8 KiB. The script sees no path of an https URL, and no password.

Exit status:
)";

constexpr const char* kCheckFooter = R"(Output:
  Nothing if the script loads. With --json an object:
    file    FILE as given
    valid   true or false
    error   the reason of the refusal, or null
    line    the line of the script with the error, or null
  The texts of alert() appear on standard error and in syslog.

Exit status:
)";

struct EvalArguments {
  ChosenScript script;
  UrlArguments asked;
  std::optional<std::string> host;
  SimulatedEnvironment environment;
  bool json = false;
};

struct CheckArguments {
  ChosenScript script;
  SimulatedEnvironment environment;
  bool json = false;
};

void print(const ShownAnswer& shown) {
  std::vector<Row> rows{{"host", shown.host}};
  if (!shown.result) {
    rows.push_back({"error", shown.error.value_or("")});
  } else {
    rows.push_back({"result", shown.result->empty() ? "(empty)" : *shown.result});
    for (const auto& [entry, isDropped] : shown.entries) {
      rows.push_back({isDropped ? "dropped" : "entry", entry.text});
    }
    if (!shown.isAnswered()) rows.push_back({"entry", "(none)"});
  }
  printBlock(shown.url, rows);
}

ExitStatus evalScript(const EvalArguments& arguments, pac_engine::Options options) {
  pac_engine::Problem refused;
  const auto engine = loadScript(readChosenScript(arguments.script), std::move(options), refused);
  if (!engine) throw refusal(arguments.script.file, refused);
  Json all = Json::array();
  bool allAnswered = true;
  // On a terminal, the answers themselves show the progress.
  Progress progress(arguments.asked.urls.size(), arguments.json || isatty(STDOUT_FILENO) != 1);
  for (const auto& url : arguments.asked.urls) {
    const auto evaluated = evaluateUrl(*engine, url, arguments.host);
    progress.step();
    allAnswered = allAnswered && evaluated.result.has_value();
    if (arguments.json) {
      all.push_back(jsonOf(evaluated, true));
    } else {
      print(evaluated);
    }
  }
  progress.end();
  if (arguments.json) printJson(all);
  return allAnswered ? kAnswered : kNoAnswer;
}

ExitStatus checkScript(const CheckArguments& arguments, pac_engine::Options options) {
  pac_engine::Problem refused;
  const auto engine = loadScript(readChosenScript(arguments.script), std::move(options), refused);
  if (arguments.json) {
    Json object;
    object["file"] = arguments.script.file;
    object["valid"] = engine != nullptr;
    object["error"] = engine ? Json() : Json(refused.message);
    object["line"] = refused.line == 0 ? Json() : Json(refused.line);
    printJson(object);
  }
  if (!engine) throw refusal(arguments.script.file, refused);
  return kAnswered;
}

void addEval(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("eval", "Asks a PAC script for the proxies of URLs.");
  const auto arguments = std::make_shared<EvalArguments>();
  addScriptFile(*command, arguments->script);
  addUrls(*command, arguments->asked);
  addUrlOption(*command, arguments->asked);
  addText(*command, "--host", "HOST", arguments->host,
          "Second argument of FindProxyForURL, for\nall URLs; by default the host of each,\nas the "
          "daemon finds it");
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(std::string(kEvalFooter) +
                  statusHelp({{kAnswered, "all URLs got an answer"},
                              {kNoAnswer, "at least one URL got no answer"}},
                             kScriptStatuses));
  command->callback([arguments, command, &action] {
    const auto leading = settleScript(arguments->script);
    checkStandardInput(arguments->script, arguments->asked.file.value_or(""));
    addFurtherUrls(*command, arguments->asked, leading);
    requireUrls(arguments->asked);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return evalScript(*arguments, options);
    };
  });
}

void addCheck(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("check", "Loads a PAC script, to check that it loads.");
  const auto arguments = std::make_shared<CheckArguments>();
  addScriptFile(*command, arguments->script);
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON");
  command->footer(std::string(kCheckFooter) +
                  statusHelp({{kAnswered, "the script loads"}}, kScriptStatuses));
  command->callback([arguments, &action] {
    settleOnlyScript(arguments->script);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return checkScript(*arguments, options);
    };
  });
}

}  // namespace

void addPacCommand(CLI::App& program, Action& action) {
  auto* const pac = program.add_subcommand("pac", "Tests PAC scripts, without daemon or bus.");
  pac->require_subcommand(1);
  pac->footer(kPacExamples);
  addEval(*pac, action);
  addCheck(*pac, action);
  addPacExplain(*pac, action);
  addPacLint(*pac, action);
  addPacTest(*pac, action);
  addPacBench(*pac, action);
  addPacCover(*pac, action);
  addPacDiff(*pac, action);
}

}  // namespace client
