// One or more URLs at the end of a command line.
#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// An option that stands among the URLs: -u with one of them, or -f with a file of them.
struct UrlOption {
  std::string text;
  bool isFile = false;
  std::size_t before = 0;  ///< arguments of the command that stand before it
};

struct UrlArguments {
  std::vector<std::string> urls;    ///< all of them, once addFurtherUrls() has returned
  std::optional<std::string> file;  ///< of -f
  std::vector<std::string> first;   ///< the argument URL
  std::vector<UrlOption> options;
  bool takesLogs = false;  ///< the file of -f may be an access log
};

/// Adds the first URL to `command` as an argument and lets others follow; adds -f. `arguments`
/// lives as long as the command.
void addUrls(CLI::App& command, UrlArguments& arguments);

/// The same for a command that takes the access log of a proxy, too (terminal/logged_url.h).
void addUrlsOrLog(CLI::App& command, UrlArguments& arguments);

/// Adds -u, which other testers of scripts have for a URL. To be called after addUrls().
void addUrlOption(CLI::App& command, UrlArguments& arguments);

/// Collects all URLs in the order of the command line; to be called when `command` has been parsed.
/// Throws the parser's error for an unknown option, and Failure for a file that cannot be read.
/// @param leading the first arguments of the command, if they turned out to be URLs
void addFurtherUrls(const CLI::App& command, UrlArguments& arguments,
                    const std::vector<std::string>& leading = {});

/// Throws the parser's error if there is no URL.
void requireUrls(const UrlArguments& arguments);

}  // namespace client
