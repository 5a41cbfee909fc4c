#include "client/ctl/terminal/url_list.h"

#include <unistd.h>

#include <string_view>
#include <system_error>
#include <utility>

#include "base/ascii.h"
#include "base/small_file.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/logged_url.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

std::string readText(const std::string& name, std::size_t mostBytes) {
  auto read = name == "-" ? base::readToEnd(STDIN_FILENO, mostBytes)
                          : base::readFile(name.c_str(), base::inTrustedFolder(mostBytes));
  if (read.failure.problem == base::FileProblem::notRegular) {
    throw Failure(kNoInput, "cannot read " + shownName(name) +
                                ": it is no regular file; for a pipe, give \"-\" and connect it to "
                                "standard input");
  }
  if (read.failure) {
    throw Failure(kNoInput, "cannot read " + shownName(name) + ": " +
                                std::generic_category().message(read.failure.error));
  }
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (read.text.starts_with(kByteOrderMark)) read.text.erase(0, kByteOrderMark.size());
  return std::move(read.text);
}

}  // namespace

std::string readListFile(const std::string& name) {
  return readText(name, kMaxListBytes);
}

std::vector<std::string> readUrls(const std::string& name) {
  std::vector<std::string> urls;
  const auto text = readListFile(name);
  std::string_view rest = text;
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    const auto line = base::trimmed(rest.substr(0, end), " \t\r");
    if (!line.empty() && line.front() != '#') urls.emplace_back(line);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return urls;
}

std::vector<std::string> readLoggedUrls(const std::string& name) {
  return urlsOfLog(readText(name, kMaxLogBytes));
}

}  // namespace client
