// Words for a POSIX shell.
#pragma once

#include <string>
#include <string_view>

namespace base {

/// `text` between single quotes: one word from which a POSIX shell reads back the same text. A
/// single quote in the text becomes '\''. A NUL, which no word of a shell can hold, is left in
/// place.
inline std::string shellWord(std::string_view text) {
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  return word + "'";
}

}  // namespace base
