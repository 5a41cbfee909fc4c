// Tests the reading of a lease file that any program may have written. The result is one clean
// value. If the writer quoted the value correctly, the result is this value.
#include <string>

#include "platform/netservice/dhcp_conf.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using netservice::wpadValue;

namespace {

constexpr std::string_view kOuter = " \t\v\f\"'";

std::string inSingleQuotes(const std::string& value) {
  std::string word = "'";
  for (const char c : value) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string inDoubleQuotes(const std::string& value) {
  std::string word = "\"";
  for (const char c : value) {
    if (std::string_view("$`\"\\").find(c) != std::string_view::npos) word += '\\';
    word += c;
  }
  return word + '"';
}

std::string behindBackslashes(const std::string& value) {
  std::string word;
  for (const char c : value) {
    if (std::string_view("$`\"\\'").find(c) != std::string_view::npos) word += '\\';
    word += c;
  }
  return word;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::textOf(data, size));
  const auto value = wpadValue(text);
  require(value.size() <= text.size(), "nothing is made up");
  require(value.find_first_of(std::string_view("\0\r\n", 3)) == value.npos, "one line");
  require(value.empty() || (kOuter.find(value.front()) == kOuter.npos &&
                            kOuter.find(value.back()) == kOuter.npos),
          "no blank or quote outside");
  if (text.find("wpad") == text.npos) require(value.empty(), "no key, no value");
  for (const auto& word :
       {inSingleQuotes(value), inDoubleQuotes(value), behindBackslashes(value)}) {
    require(wpadValue("wpad=" + word) == value, "a shell's word is what it says");
    require(wpadValue(text + "\n wpad\t= " + word + " \r\ndomain=x\nwpad") == value,
            "the last line with the key counts");
  }
  return 0;
}
