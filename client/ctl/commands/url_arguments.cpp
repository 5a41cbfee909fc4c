#include "client/ctl/commands/url_arguments.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "client/ctl/commands/option_text.h"
#include "client/ctl/terminal/url_list.h"

namespace client {

void addUrls(CLI::App& command, std::vector<std::string>& urls, std::optional<std::string>& file) {
  // The parser would take "[...]" apart as a list wherever it takes many values, so the option has
  // the first URL and what the parser leaves over are the others.
  command.add_option("URL", urls, "What to ask for, one or more")
      ->option_text("...")
      ->allow_extra_args(false);
  addText(command, "-f,--file", "FILE", file,
          "URLs, one a line, asked for behind those of\nthe command line; \"-\" is standard input");
  command.allow_extras();
}

/// Options cannot be meant, since those that there are were understood; after "--" anything can.
void addFurtherUrls(const CLI::App& command, std::vector<std::string>& urls,
                    const std::optional<std::string>& file) {
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
  if (file) {
    for (auto& url : readUrls(*file)) urls.push_back(std::move(url));
  }
  if (urls.empty()) throw CLI::RequiredError("URL");
}

}  // namespace client
