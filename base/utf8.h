// UTF-8 (RFC 3629).
#pragma once

#include <cstddef>
#include <string_view>

namespace base {

/// One character of a text.
struct Utf8Character {
  std::size_t length = 0;  ///< bytes; 0 if the bytes are no character
  char32_t code = 0;
};

/// How many bytes a character has whose first byte is `lead`; 0 if none begins with it.
constexpr std::size_t utf8Length(char lead) {
  const auto byte = static_cast<unsigned char>(lead);
  if (byte < 0x80) return 1;
  if (byte >= 0xC2 && byte <= 0xDF) return 2;
  if (byte >= 0xE0 && byte <= 0xEF) return 3;
  return byte >= 0xF0 && byte <= 0xF4 ? 4 : 0;
}

/// Whether `byte` continues a character that began before it.
constexpr bool isUtf8Continuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Half of a pair in UTF-16, no character of UTF-8.
constexpr bool isSurrogate(char32_t code) {
  return code >= 0xD800 && code <= 0xDFFF;
}

/// A code point that Unicode never gives to a character (Unicode 15, 23.7).
constexpr bool isNoncharacter(char32_t code) {
  return (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFE;
}

/// The character that begins at `at`, which is less than the size of `text`. It is no character if
/// its bytes are incomplete, in a form that is too long, or beyond U+10FFFF. A surrogate in three
/// bytes is returned like a character, because script engines write one; RFC 3629 forbids it.
Utf8Character utf8CharacterAt(std::string_view text, std::size_t at);

/// Whether `text` is well-formed: characters only, none of them a surrogate.
bool isUtf8(std::string_view text);

/// The longest head of `text` that has at most `limit` bytes and ends between two characters. Of a
/// text that is not UTF-8 the head has up to three bytes less than it could.
std::string_view utf8Head(std::string_view text, std::size_t limit);

}  // namespace base
