// Words for a POSIX shell.
#pragma once

#include <string>
#include <string_view>

namespace base {

/// `text` between single quotes. A POSIX shell reads this word as the same text. A single quote in
/// the text becomes '\''. A NUL is kept, although a shell word cannot contain it.
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
