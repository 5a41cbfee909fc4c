// Tests the reading of the resolver file: the result is a part of the last line with a keyword.
#include <sstream>
#include <string>

#include "fetcher/resolver_file.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

// Finds the expected result in a simpler way: reads line by line from a stream.
std::string expected(const std::string& text) {
  std::string domain;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    for (const char* keyword : {"search ", "domain "}) {
      if (line.find(keyword) != std::string::npos) domain = line.substr(line.find(' ') + 1);
    }
  }
  return domain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::textOf(data, size));
  const auto domain = fetcher::domainOfResolverText(text);
  require(domain == expected(text), "the last line with a keyword counts");
  require(domain.find('\n') == std::string::npos, "one line at most");
  require(text.find(domain) != std::string::npos, "nothing is made up");
  require(fetcher::domainOfResolverText(text + "\nsearch " + domain) == domain,
          "what was read and is written is read again");
  require(fetcher::domainOfResolverText(text + "\nsearch\nnameserver 10.0.0.1\n") == domain,
          "lines without a keyword change nothing");
  return 0;
}
