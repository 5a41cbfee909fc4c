#include "client/ctl/commands/url_arguments.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/url_list.h"

namespace client {

namespace {

/// The number of arguments that the parser has found so far, including unknown arguments.
std::size_t argumentsOf(const CLI::App& command) {
  std::size_t count = command.remaining_size();
  for (const auto* const option : command.get_options()) {
    if (option->get_positional()) count += option->count();
  }
  return count;
}

void addUrlsWith(CLI::App& command, UrlArguments& arguments, const char* help) {
  // If an argument accepts many values, the parser splits "[...]" as a list. So the argument
  // accepts only the first URL. The parser keeps the other URLs as unknown texts.
  command.add_option("URL", arguments.first, "The URLs to ask for")
      ->option_text("...")
      ->allow_extra_args(false);
  command
      .add_option_function<std::string>(
          "-f,--file",
          [&command, &arguments](const std::string& name) {
            if (arguments.file) throw CLI::ValidationError("--file", "may be given once");
            arguments.file = name;
            arguments.options.push_back({name, true, argumentsOf(command)});
          },
          help)
      ->option_text("FILE")
      // Calls the function during parsing. At that moment, the number of arguments before -f is
      // known.
      ->trigger_on_parse();
  command.allow_extras();
}

/// Adds the URLs of the options -f and -u that have at most `count` arguments before them.
void addOptions(UrlArguments& arguments, std::size_t& next, std::size_t count) {
  for (; next < arguments.options.size() && arguments.options[next].before <= count; ++next) {
    const auto& [text, isFile, before] = arguments.options[next];
    if (!isFile) {
      arguments.urls.push_back(text);
      continue;
    }
    auto read = arguments.takesLogs ? readLoggedUrls(text) : readUrls(text);
    for (auto& url : read) arguments.urls.push_back(std::move(url));
  }
}

}  // namespace

void addUrls(CLI::App& command, UrlArguments& arguments) {
  addUrlsWith(command, arguments,
              "A file of URLs, one a line. They are asked\nfor at the place of this option among "
              "the\nother URLs. \"-\" is standard input");
}

void addUrlsOrLog(CLI::App& command, UrlArguments& arguments) {
  arguments.takesLogs = true;
  addUrlsWith(command, arguments,
              "A file of URLs, one a line, or the access\nlog of a proxy; \"-\" is standard input");
}

void addUrlOption(CLI::App& command, UrlArguments& arguments) {
  command
      .add_option_function<std::string>(
          "-u",
          [&command, &arguments](const std::string& url) {
            arguments.options.push_back({url, false, argumentsOf(command)});
          },
          "The same as URL")
      ->option_text("URL")
      ->trigger_on_parse();
}

/// The parser has removed all known options. So here a text that begins with "-" is an unknown
/// option. After "--", any text is a URL.
void addFurtherUrls(const CLI::App& command, UrlArguments& arguments,
                    const std::vector<std::string>& leading) {
  std::vector<std::string> given = leading;
  given.insert(given.end(), arguments.first.begin(), arguments.first.end());
  bool optionsEnded = false;
  for (auto& text : command.remaining()) {
    if (!optionsEnded && text == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && text.size() > 1 && text.front() == '-') {
      throw CLI::ExtrasError({text});
    } else {
      given.push_back(std::move(text));
    }
  }
  std::size_t next = 0;
  auto count = argumentsOf(command) - given.size();  // the number of arguments that are not URLs
  addOptions(arguments, next, count);
  for (auto& url : given) {
    arguments.urls.push_back(std::move(url));
    addOptions(arguments, next, ++count);
  }
}

void requireUrls(const UrlArguments& arguments) {
  if (!arguments.urls.empty()) return;
  if (!arguments.file) throw CLI::RequiredError("URL");
  const auto name = *arguments.file == "-" ? "standard input" : shownName(*arguments.file);
  throw CLI::ValidationError("--file", name + " has no URL");
}

}  // namespace client
