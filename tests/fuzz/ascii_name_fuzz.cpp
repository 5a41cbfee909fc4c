// Tests the ASCII form of a host name: it is valid in a query, and does not depend on letter case.
// If the ASCII form is converted again, it does not change.
#include <algorithm>
#include <string>

#include "engine/host/name_lookup.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using pac_engine::asciiName;

namespace {

// A name has at most 253 characters, and the root's dot may follow.
constexpr std::size_t kLongestName = 254;

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name(fuzz::textOf(data, size));
  const auto ascii = asciiName(name);
  const bool given =
      std::none_of(name.begin(), name.end(), [](unsigned char c) { return c > 0x7F; });
  if (given) {
    std::string folded = name;
    std::transform(folded.begin(), folded.end(), folded.begin(), lower);
    const bool fit =
        !name.empty() && name.size() <= kLongestName &&
        std::none_of(name.begin(), name.end(), [](char c) { return c <= ' ' || c == 0x7F; });
    require(ascii.has_value() == fit, "of ASCII, what is short and visible is a name");
    require(!ascii || *ascii == folded, "an ASCII name stays, in lower case");
    std::transform(folded.begin(), folded.end(), folded.begin(), upper);
    require(asciiName(folded) == ascii, "case makes no difference");
  }
  if (!ascii) return 0;
  require(!ascii->empty() && ascii->size() <= kLongestName, "as long as a name can be");
  for (const char c : *ascii)
    require(c > ' ' && c < 0x7F && c == lower(c), "visible ASCII in lower case");
  require(asciiName(*ascii) == ascii, "an ASCII form is its own ASCII form");
  return 0;
}
