// Checks a property that must be true for every input. If the property is false, the process ends.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// If `holds` is false, prints the place and the text and ends the process, in every kind of build.
/// The compiler's built-ins give the place of the caller, because clang 14 has no
/// std::source_location.
inline void require(bool holds, const char* property, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
  std::abort();
}

}  // namespace fuzz
