#include "client/ctl/commands/pac_lint_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/lint_report.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/script_workbench.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

constexpr const char* kPacLintFooter = R"(Output:
  text   FILE:LINE:COLUMN: SEVERITY: MESSAGE [RULE], the reason, and a fix; the
         default
  json   an object: file, errors, warnings, notes and findings (line, column,
         severity, name, message, reason and fix)
  sarif  SARIF 2.1.0, as code hosts and editors read it
  Columns count from 1, in UTF-16 units.

Rules:
  host-case, isinnet-name, dns-first, domain-dot, shexp-regex, https-path,
  unreachable, no-var, date-month-end, entry-dropped, entry-unknown,
  entry-port, direct-missing, direct-first, no-return, local-to-proxy,
  too-many-names, cost and ignore-unknown; docs/pac-lint.md explains each.
  In the script, "// pac-lint: ignore=RULE[,RULE]" after the code of a line
  switches the rules off for that line. If the comment stands alone in its line,
  it does so for the next line of code.

Exit status:
)";

/// Longest answer for a local host, in bytes. It is short enough that many such answers fit in an
/// argument of the workbench.
constexpr std::size_t kMostAnswerBytes = 2048;

struct LintArguments {
  ChosenScript script;
  std::string format = "text";
  std::string failOn = "warning";
  std::vector<std::string> ignored;
  std::vector<std::string> only;
};

/// The script's answers for hosts of the local network, while no name resolves. Throws Failure if
/// the script is refused.
nlohmann::json localAnswers(const std::string& script, const std::string& file) {
  pac_engine::Options options;
  options.names.offline = true;
  options.endsWithCaller = true;
  pac_engine::Problem refused;
  const auto engine = pac_engine::Engine::load(script, options, refused);
  if (!engine) throw refusal(file, refused);
  auto answers = nlohmann::json::object();
  for (const std::string host : {"localhost", "printer"}) {
    const auto reply = engine->evaluate("http://" + host + "/", host);
    if (reply.result && reply.result->size() <= kMostAnswerBytes) answers[host] = *reply.result;
  }
  return answers;
}

/// Checks only that the name of a rule is a word: the list of the valid names arrives later, with
/// the report.
std::string notAWord(const std::string& name) {
  const bool isWord = !name.empty() && name.size() <= 64 &&
                      name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-") == std::string::npos;
  return isWord ? "" : "there is no such rule; see pac lint --help";
}

void checkNames(const LintReport& report, const std::vector<std::string>& names) {
  for (const auto& name : names) {
    const bool isKnown = std::any_of(report.rules.begin(), report.rules.end(),
                                     [&](const auto& rule) { return rule.name == name; });
    if (!isKnown) throw Failure(kUsage, "there is no rule \"" + name + "\"; see pac lint --help");
  }
}

LintReport lint(const LintArguments& arguments) {
  const auto script = readChosenScript(arguments.script);
  const auto name = shownName(arguments.script.file);
  nlohmann::json argument;
  argument["answers"] = localAnswers(script, arguments.script.file);
  argument["ignore"] = arguments.ignored;
  if (!arguments.only.empty()) argument["only"] = arguments.only;
  const auto parser = openParser(script, name);
  auto report = lintReportOf(askParser(*parser, "lint", argument, name));
  checkNames(report, arguments.ignored);
  checkNames(report, arguments.only);
  return report;
}

ExitStatus lintScript(const LintArguments& arguments) {
  const auto report = lint(arguments);
  if (arguments.format == "json") {
    printJson(lintJson(report, arguments.script.file));
  } else if (arguments.format == "sarif") {
    printJson(lintSarif(report, arguments.script.file, PROXYMANAGER_VERSION));
  } else {
    for (const auto& line : lintLines(report, shownName(arguments.script.file))) printLine(line);
  }
  const auto least = arguments.failOn == "note"      ? Severity::kNote
                     : arguments.failOn == "warning" ? Severity::kWarning
                                                     : Severity::kError;
  const bool fails = std::any_of(report.findings.begin(), report.findings.end(),
                                 [&](const auto& finding) { return finding.severity >= least; });
  return fails ? kNoAnswer : kAnswered;
}

}  // namespace

void addPacLint(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("lint", "Finds what is probably wrong with a script.");
  const auto arguments = std::make_shared<LintArguments>();
  addScriptFile(*command, arguments->script);
  command->add_option("--format", arguments->format, "text, json or sarif")
      ->check(CLI::IsMember({"text", "json", "sarif"}))
      ->option_text("FORMAT");
  command->add_option("--ignore", arguments->ignored, "Switch these rules off")
      ->delimiter(',')
      ->check(CLI::Validator(notAWord, ""))
      ->allow_extra_args(false)
      ->option_text("RULE[,RULE]");
  command->add_option("--only", arguments->only, "Switch all other rules off")
      ->delimiter(',')
      ->check(CLI::Validator(notAWord, ""))
      ->allow_extra_args(false)
      ->option_text("RULE[,RULE]");
  command
      ->add_option(
          "--fail-on", arguments->failOn,
          "End with status 1 for findings of this\nseverity and above: error, warning (the\n"
          "default) or note")
      ->check(CLI::IsMember({"error", "warning", "note"}))
      ->option_text("SEVERITY");
  command->footer(std::string(kPacLintFooter) +
                  statusHelp({{kAnswered, "no finding of the severity of --fail-on"},
                              {kNoAnswer, "at least one such finding"}},
                             kScriptStatuses));
  command->callback([arguments, &action] {
    settleOnlyScript(arguments->script);
    action = [arguments] { return lintScript(*arguments); };
  });
}

}  // namespace client
