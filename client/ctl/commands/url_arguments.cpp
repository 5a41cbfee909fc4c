#include "client/ctl/commands/url_arguments.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "client/ctl/terminal/url_list.h"

namespace client {

void addUrls(CLI::App& command, UrlArguments& arguments) {
  // If an argument takes many values, the parser splits "[...]" as a list. So the argument takes
  // only the first URL, and the others are the texts that the parser leaves over.
  const auto* const first =
      command.add_option("URL", arguments.urls, "What to ask for, one or more")
          ->option_text("...")
          ->allow_extra_args(false);
  command
      .add_option_function<std::string>(
          "-f,--file",
          [&command, &arguments, first](const std::string& name) {
            if (arguments.file) throw CLI::ValidationError("--file", "may be given once");
            arguments.file = name;
            arguments.fileFollowsFirst = first->count() > 0;
            arguments.fileFollowsOthers = command.remaining_size();
          },
          "URLs, one a line, asked for where this\nstands among the others; \"-\" is standard\n"
          "input")
      ->option_text("FILE")
      ->trigger_on_parse();  // while it is known what stands before it
  command.allow_extras();
}

/// A text that begins with "-" is an unknown option, because the parser has taken all known
/// options. After "--" any text is a URL.
void addFurtherUrls(const CLI::App& command, UrlArguments& arguments) {
  auto& urls = arguments.urls;
  auto others = command.remaining();
  // URLs that a command has from elsewhere come first.
  const bool hasFirst = command.get_option("URL")->count() > 0;
  std::size_t before = arguments.fileFollowsFirst || !hasFirst ? urls.size() : 0;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < others.size(); ++i) {
    auto& argument = others[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && argument.size() > 1 && argument.front() == '-') {
      throw CLI::ExtrasError({argument});
    } else {
      urls.push_back(std::move(argument));
      if (i < arguments.fileFollowsOthers) before = urls.size();
    }
  }
  if (arguments.file) {
    const auto read = readUrls(*arguments.file);
    urls.insert(urls.begin() + static_cast<std::ptrdiff_t>(before), read.begin(), read.end());
  }
  if (urls.empty()) throw CLI::RequiredError("URL");
}

}  // namespace client
