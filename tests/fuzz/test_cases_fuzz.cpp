// Tests the reading of files of test cases. Either a file is refused with the number of a line, or
// each of its cases has a URL and an answer.
#include <string>

#include "client/ctl/commands/test_cases.h"
#include "client/ctl/failure.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::textOf(data, size));
  try {
    for (const auto& given : client::parseTestCases(text, "cases", {})) {
      require(!given.url.empty() && given.url.find_first_of(" \t") == std::string::npos,
              "a URL is one word");
      require(given.line > 0 && given.line <= size + 1, "a case has a line");
      require(given.expected == client::comparableAnswer(given.expected),
              "an answer can be compared as it is");
    }
  } catch (const client::Failure& failure) {
    require(failure.status() == client::kBadData, "the file is at fault");
    require(std::string(failure.what()).starts_with("cases"), "the message names the file");
  }
  return 0;
}
