// ASCII characters and texts. The locale has no effect.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace base {

/// The characters that separate words on a line.
inline constexpr std::string_view kBlanks = " \t";

constexpr bool isAscii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}

constexpr bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return isAscii(c); });
}

constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Bytes 0 to 31 and 127.
constexpr bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

/// `c` in lower case if it is an ASCII letter, else `c`.
constexpr char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// `text` with its ASCII letters in lower case.
inline std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) { return lowerCase(c); });
  return lower;
}

/// Whether two texts are equal if the case of ASCII letters is ignored.
constexpr bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowerCase(x) == lowerCase(y); });
}

/// The value of a hexadecimal digit, -1 for any other character.
constexpr int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  const char lower = lowerCase(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// `text` without the characters of `outer` at its two ends.
constexpr std::string_view trimmed(std::string_view text, std::string_view outer = kBlanks) {
  const std::size_t begin = text.find_first_not_of(outer);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(outer) - begin + 1);
}

}  // namespace base
