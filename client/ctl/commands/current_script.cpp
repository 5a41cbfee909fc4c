#include "client/ctl/commands/current_script.h"

#include <CLI/CLI.hpp>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "base/small_file.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

void addChosenScript(CLI::App& command, ChosenScript& chosen, std::vector<std::string>& urls) {
  command
      .add_option("FILE", chosen.file,
                  "The PAC script: a file of at most\n512,000 bytes, or \"-\" for standard input")
      ->option_text(" ");
  command.add_flag("--current", chosen.isCurrent,
                   "Instead of FILE the script in force, which\nthe daemon has fetched");
  command.add_option("-p", chosen.option, "The same as FILE")->option_text("FILE");
  command.add_option("-u", urls, "The same as URL")->option_text("URL")->allow_extra_args(false);
}

void settleChosenScript(ChosenScript& chosen, std::vector<std::string>& urls) {
  if (chosen.isCurrent || !chosen.option.empty()) {
    if (chosen.isCurrent && !chosen.option.empty()) {
      throw CLI::ValidationError("--current", "there is a file already");
    }
    if (!chosen.file.empty()) urls.insert(urls.begin(), std::move(chosen.file));
    chosen.file = chosen.isCurrent ? base::kPacFile : chosen.option;
  } else if (chosen.file.empty()) {
    throw CLI::RequiredError("FILE");
  }
}

std::string readChosenScript(const ChosenScript& chosen) {
  if (!chosen.isCurrent) return readScript(chosen.file);
  // Every user may put something where it lies, so nothing is followed or waited for.
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
