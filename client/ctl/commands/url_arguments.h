// One or more URLs at the end of a command line.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// Adds the first URL to `command` as an argument and lets others follow; adds -f, which sets
/// `file`.
void addUrls(CLI::App& command, std::vector<std::string>& urls, std::optional<std::string>& file);

/// Appends what follows and what `file` holds; to be called when `command` has been parsed. Throws
/// the parser's error for an unknown option and if there is no URL at all, and Failure.
void addFurtherUrls(const CLI::App& command, std::vector<std::string>& urls,
                    const std::optional<std::string>& file);

}  // namespace client
