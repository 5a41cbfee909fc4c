#include "client/ctl/commands/pac_test_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ctl/commands/chosen_script.h"
#include "client/ctl/commands/script_on_trial.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/test_cases.h"
#include "client/ctl/commands/test_report.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/progress.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_list.h"

namespace client {

namespace {

constexpr const char* kPacTestFooter = R"(Cases:
  One a line:  URL [OPTIONS] -> ANSWER
  OPTIONS are --host, --at, --tz, --resolve and --my-ip, as for "pac eval".
  A line of options only applies to the cases below it, up to the next such
  line. Empty lines and those that begin with # are skipped.

    http://intranet/                         -> DIRECT
    --tz Europe/Berlin --my-ip 10.1.2.3
    http://www.example.org/ --at 2026-03-02T09:00 -> PROXY proxy:8080; DIRECT
    http://shop.example/ --resolve shop.example=192.0.2.7 -> DIRECT

  ANSWER is (error) if the script gives no answer, and (empty) if the answer has
  no entries. Blanks around entries do not count.
  A name without --resolve does not resolve. Without --my-ip the own address is
  127.0.0.1. So the network never decides a test. Cases with equal options are
  asked of one script, in order, and its variables keep their values. If the
  options change, the script is loaded again.

Output:
  text   the cases that failed, and how many; the default
  tap    the Test Anything Protocol, version 14
  junit  the XML of JUnit

Exit status:
)";

struct TestArguments {
  ChosenScript script;
  TestedFiles files;
  SimulatedEnvironment environment;
  std::string format = "text";
};

bool isSameWorld(const SimulatedEnvironment& a, const SimulatedEnvironment& b) {
  return a.time == b.time && a.zone == b.zone && a.names == b.names &&
         a.ownAddresses == b.ownAddresses;
}

/// One script, loaded in the simulated environment of the last case.
class TestedScript {
 public:
  TestedScript(std::string script, const TestedFiles& files)
      : mScript(std::move(script)), mFiles(files) {}

  /// @return the script in the environment of `given`; null if the script is refused
  pac_engine::Engine* inWorldOf(const TestCase& given, pac_engine::Problem& refused) {
    if (mEngine && isSameWorld(mWorld, given.environment)) return mEngine.get();
    mEngine = loadScript(mScript, optionsOf(given), refused);
    mWorld = given.environment;
    return mEngine.get();
  }

 private:
  pac_engine::Options optionsOf(const TestCase& given) const {
    try {
      return engineOptions(given.environment);
    } catch (const CLI::ValidationError& error) {
      throw Failure(kBadData,
                    mFiles.cases + ":" + std::to_string(given.line) + ": " + error.what());
    }
  }

  std::string mScript;
  const TestedFiles& mFiles;
  SimulatedEnvironment mWorld;
  std::unique_ptr<pac_engine::Engine> mEngine;
};

TestOutcome outcomeOf(const TestCase& given, pac_engine::Engine& engine) {
  using Clock = std::chrono::steady_clock;
  const auto begun = Clock::now();
  const auto shown = evaluateUrl(engine, given.url, given.host);
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begun);
  if (shown.result) return {given, comparableAnswer(*shown.result), "", took};
  return {given, std::string(kExpectsError), shown.error.value_or(""), took};
}

ExitStatus refuse(const TestArguments& arguments, const pac_engine::Problem& refused) {
  const auto failure = refusal(arguments.files.script, refused);
  if (arguments.format == "tap") printText(tapBailOut(failure.what()));
  if (arguments.format == "junit") {
    printText(junitRefusal(failure.what(), arguments.files));
  }
  throw failure;
}

void printOutcomes(const TestArguments& arguments, const std::vector<TestOutcome>& outcomes) {
  if (arguments.format == "tap") return printText(tapReport(outcomes, arguments.files));
  if (arguments.format == "junit") {
    return printText(junitReport(outcomes, arguments.files));
  }
  std::size_t failed = 0;
  for (const auto& outcome : outcomes) {
    if (outcome.isPassed()) continue;
    ++failed;
    printBlock(shownName(arguments.files.cases) + ":" + std::to_string(outcome.given.line) + ": " +
                   withoutPassword(outcome.given.url),
               std::vector<Row>{{"expected", outcome.given.expected, Tone::kGood},
                                {"got", outcome.shownAnswer(), Tone::kBad}});
  }
  const auto count = std::to_string(outcomes.size()) + (outcomes.size() == 1 ? " case" : " cases");
  printLine(failed == 0 ? count + " passed" : std::to_string(failed) + " of " + count + " failed");
}

/// Asks for each case. @return nothing if the script is refused in the environment of a case; then
/// `refused` has the reason
std::optional<std::vector<TestOutcome>> outcomesOf(const std::vector<TestCase>& cases,
                                                   TestedScript& script,
                                                   pac_engine::Problem& refused) {
  std::vector<TestOutcome> outcomes;
  Progress progress(cases.size());
  for (const auto& given : cases) {
    auto* const engine = script.inWorldOf(given, refused);
    if (engine == nullptr) return std::nullopt;
    outcomes.push_back(outcomeOf(given, *engine));
    progress.step();
  }
  return outcomes;
}

ExitStatus testScript(const TestArguments& arguments) {
  const auto cases = parseTestCases(readListFile(arguments.files.cases),
                                    shownName(arguments.files.cases), arguments.environment);
  TestedScript script(readChosenScript(arguments.script), arguments.files);
  pac_engine::Problem refused;
  const auto outcomes = outcomesOf(cases, script, refused);
  if (!outcomes) return refuse(arguments, refused);
  printOutcomes(arguments, *outcomes);
  const bool allPassed = std::all_of(outcomes->begin(), outcomes->end(),
                                     [](const auto& one) { return one.isPassed(); });
  return allPassed ? kAnswered : kNoAnswer;
}

/// Handles -p: if this option selects the script, the only argument is the file of cases.
void settleFiles(TestArguments& arguments) {
  auto others = settleScript(arguments.script);
  auto& cases = arguments.files.cases;
  if (!others.empty()) {
    if (!cases.empty()) throw CLI::ExtrasError({cases});
    cases = std::move(others.front());
  }
  if (cases.empty()) throw CLI::RequiredError("CASES");
  arguments.files.script = arguments.script.file;
}

}  // namespace

void addPacTest(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("test", "Checks a script's answers against cases.");
  const auto arguments = std::make_shared<TestArguments>();
  addScriptFile(*command, arguments->script);
  command
      ->add_option("CASES", arguments->files.cases,
                   "URLs and their answers; \"-\" is standard input")
      ->option_text(" ");
  addEnvironmentOptions(*command, arguments->environment);
  command->add_option("--format", arguments->format, "text, tap or junit")
      ->check(CLI::IsMember({"text", "tap", "junit"}))
      ->option_text("FORMAT");
  command->footer(std::string(kPacTestFooter) +
                  statusHelp({{kAnswered, "all cases passed"},
                              {kNoAnswer, "at least one case failed"},
                              {kBadData, "the file of cases is not understood, or holds none"}},
                             kScriptStatuses));
  command->callback([arguments, &action] {
    settleFiles(*arguments);
    if (arguments->files.script == "-" && arguments->files.cases == "-") {
      throw CLI::ValidationError("CASES", "standard input holds the script already");
    }
    engineOptions(arguments->environment);  // throws if the value of an option is not valid
    action = [arguments] { return testScript(*arguments); };
  });
}

}  // namespace client
