// One or more URLs at the end of a command line.
#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// An option that is between URLs: -u with one URL, or -f with a file of URLs.
struct UrlOption {
  std::string text;
  bool isFile = false;
  std::size_t before = 0;  ///< number of the command's arguments before this option
};

struct UrlArguments {
  std::vector<std::string> urls;    ///< all URLs, set by addFurtherUrls()
  std::optional<std::string> file;  ///< the argument of -f
  std::vector<std::string> first;   ///< the argument URL
  std::vector<UrlOption> options;
  bool takesLogs = false;  ///< the file of -f may be an access log
};

/// Adds the first URL to `command` as an argument, allows further URLs, and adds -f. `arguments`
/// must live as long as `command`.
void addUrls(CLI::App& command, UrlArguments& arguments);

/// Does the same for a command that also accepts the access log of a proxy (terminal/logged_url.h).
void addUrlsOrLog(CLI::App& command, UrlArguments& arguments);

/// Adds "-u URL", which means the same as the argument URL. Other programs that test scripts have
/// this option. Call this function after addUrls().
void addUrlOption(CLI::App& command, UrlArguments& arguments);

/// Collects all URLs in the order of the command line. Call this function after `command` has been
/// parsed. Throws the parser's error for an unknown option, and Failure for a file that cannot be
/// read.
/// @param leading the first arguments of the command, if they are URLs
void addFurtherUrls(const CLI::App& command, UrlArguments& arguments,
                    const std::vector<std::string>& leading = {});

/// Throws the parser's error if there is no URL.
void requireUrls(const UrlArguments& arguments);

}  // namespace client
