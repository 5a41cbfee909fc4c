#include "client/ctl/commands/chosen_script.h"

#include <CLI/CLI.hpp>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "base/small_file.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

void addScriptFile(CLI::App& command, ChosenScript& chosen) {
  command
      .add_option("FILE", chosen.file,
                  "The PAC script: a file of at most\n512,000 bytes, or \"-\" for standard input")
      ->option_text(" ");
  command.add_option("-p", chosen.option, "The same as FILE")->option_text("FILE");
}

void addCurrentScript(CLI::App& command, ChosenScript& chosen) {
  command.add_flag("--current", chosen.isCurrent,
                   "Instead of FILE the script in force, which\nthe daemon has fetched");
}

std::vector<std::string> settleScript(ChosenScript& chosen) {
  if (!chosen.isCurrent && chosen.option.empty()) {
    if (chosen.file.empty()) throw CLI::RequiredError("FILE");
    return {};
  }
  if (chosen.isCurrent && !chosen.option.empty()) {
    throw CLI::ValidationError("--current", "-p names a script already");
  }
  std::vector<std::string> others;
  if (!chosen.file.empty()) others.push_back(std::move(chosen.file));
  chosen.file = chosen.isCurrent ? base::kPacFile : chosen.option;
  return others;
}

void settleOnlyScript(ChosenScript& chosen) {
  const auto others = settleScript(chosen);
  if (!others.empty()) throw CLI::ExtrasError(others);
}

void checkStandardInput(const ChosenScript& chosen, const std::string& file) {
  if (!chosen.isCurrent && chosen.file == "-" && file == "-") {
    throw CLI::ValidationError("-f", "standard input holds the script already");
  }
}

std::string readChosenScript(const ChosenScript& chosen) {
  if (!chosen.isCurrent) return readScript(chosen.file);
  // Every user may create a file at the path of the daemon's script. So the read follows no link
  // and does not wait.
  base::FileDemands demands;
  demands.mostBytes = kMaxScriptBytes;
  demands.owner = base::FileOwner::anybody;
  auto file = base::readFile(base::kPacFile, demands);
  if (!file.failure) return std::move(file.text);
  throw Failure(kNoInput, file.failure.problem == base::FileProblem::missing
                              ? "there is no script in force: the daemon has fetched none"
                              : std::string("cannot read ") + base::kPacFile + ": " +
                                    std::generic_category().message(file.failure.error));
}

}  // namespace client
