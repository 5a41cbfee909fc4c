// One or more URLs at the end of a command line.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace client {

/// Adds the first URL to `command` as an argument that must be there, and lets others follow.
void addUrls(CLI::App& command, std::vector<std::string>& urls);

/// Appends what follows; to be called when `command` has been parsed. Throws the parser's error
/// where an option stands there that is not known.
void addFurtherUrls(const CLI::App& command, std::vector<std::string>& urls);

}  // namespace client
