// One or more URLs at the end of a command line.
#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace client {

struct UrlArguments {
  std::vector<std::string> urls;
  std::optional<std::string> file;    ///< of -f
  bool fileFollowsFirst = false;      ///< -f stands behind the first URL
  std::size_t fileFollowsOthers = 0;  ///< and behind so many of the arguments that follow that one
};

/// Adds the first URL to `command` as an argument and lets others follow; adds -f. `arguments`
/// lives as long as the command.
void addUrls(CLI::App& command, UrlArguments& arguments);

/// Adds what follows and what the file holds, in the order of the command line; to be called when
/// `command` has been parsed. Throws the parser's error for an unknown option and if there is no
/// URL at all, and Failure.
void addFurtherUrls(const CLI::App& command, UrlArguments& arguments);

}  // namespace client
