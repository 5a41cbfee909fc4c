// Tests the reading of lists of URLs and of access logs: each URL that is read is a word of the
// log, or is made from one word.
#include "client/ctl/terminal/logged_url.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto log = fuzz::textOf(data, size);
  const auto urls = client::urlsOfLog(log);
  require(urls.size() <= size, "a log has no more URLs than bytes");
  // The page of the relay is JSON, and its texts may contain anything.
  const bool isPage = log.find("destination") != std::string_view::npos;
  for (const auto& url : urls) {
    require(!url.empty(), "a URL is not empty");
    if (isPage) continue;
    require(url.find_first_of(" \t\n") == std::string::npos, "a URL is one word");
    require(url.size() <= size + std::string_view("https:///").size(),
            "a URL is a part of the log");
  }
  return 0;
}
