// A property that holds for every input, or the process ends.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Ends the process if `holds` is false, in every build, and prints the place and the text. The
/// caller's place comes from the compiler's built-ins: clang 14 has no std::source_location.
inline void require(bool holds, const char* property, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
  std::abort();
}

}  // namespace fuzz
