#include "client/ctl/terminal/logged_urls.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "base/ascii.h"
#include "base/small_file.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

constexpr std::string_view kBlanks = " \t\r";

/// The next word of `text`, which loses it; empty at the end. Quotation marks count as blanks.
std::string_view nextWord(std::string_view& text) {
  constexpr std::string_view kBetween = " \t\r\"";
  text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
  const auto word = text.substr(0, text.find_first_of(kBetween));
  text.remove_prefix(word.size());
  return word;
}

bool isMethod(std::string_view word) {
  return word.size() >= 3 && word.size() <= 16 &&
         std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

}  // namespace

std::string urlOfLine(std::string_view line) {
  line = base::trimmed(line, kBlanks);
  if (line.empty() || line.front() == '#') return {};
  if (line.find_first_of(kBlanks) == std::string_view::npos) return std::string(line);
  bool isConnect = false;
  bool isBehindMethod = false;
  for (auto word = nextWord(line); !word.empty(); word = nextWord(line)) {
    if (isBehindMethod && word.find("://") != std::string_view::npos) return std::string(word);
    if (isConnect && word.find(':') != std::string_view::npos && word.front() != '[') {
      const auto host = word.ends_with(":443") ? word.substr(0, word.size() - 4) : word;
      return "https://" + std::string(host) + "/";
    }
    isBehindMethod = isMethod(word);
    isConnect = word == "CONNECT";
  }
  return {};
}

std::vector<std::string> readLoggedUrls(const std::string& name) {
  const auto read = name == "-" ? base::readToEnd(STDIN_FILENO, kMaxLogBytes)
                                : base::readFile(name.c_str(), base::inTrustedFolder(kMaxLogBytes));
  if (read.failure) {
    throw Failure(kNoInput, "cannot read " + shownName(name) + ": " +
                                std::generic_category().message(read.failure.error));
  }
  std::vector<std::string> urls;
  for (std::string_view rest = read.text; !rest.empty();) {
    const auto end = rest.find('\n');
    auto url = urlOfLine(rest.substr(0, end));
    if (!url.empty()) urls.push_back(std::move(url));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return urls;
}

}  // namespace client
