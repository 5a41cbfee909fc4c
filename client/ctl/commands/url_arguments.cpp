#include "client/ctl/commands/url_arguments.h"

#include <CLI/CLI.hpp>
#include <utility>

namespace client {

void addUrls(CLI::App& command, std::vector<std::string>& urls) {
  // The parser would take "[...]" apart as a list wherever it takes many values, so the option has
  // the first URL and what the parser leaves over are the others.
  command.add_option("URL", urls, "What to ask for, one or more")
      ->required()
      ->option_text("...")
      ->allow_extra_args(false);
  command.allow_extras();
}

/// Options cannot be meant, since those that there are were understood; after "--" anything can.
void addFurtherUrls(const CLI::App& command, std::vector<std::string>& urls) {
  bool optionsEnded = false;
  for (auto& argument : command.remaining()) {
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && argument.size() > 1 && argument.front() == '-') {
      throw CLI::ExtrasError({argument});
    } else {
      urls.push_back(std::move(argument));
    }
  }
}

}  // namespace client
