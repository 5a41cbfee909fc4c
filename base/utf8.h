// UTF-8 (RFC 3629).
#pragma once

#include <cstddef>
#include <string_view>

namespace base {

/// One character of a text.
struct Utf8Character {
  std::size_t length = 0;  ///< bytes; 0 if the bytes are not a character
  char32_t code = 0;
};

/// The number of bytes of a character whose first byte is `lead`; 0 if no character begins with it.
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

/// Half of a pair in UTF-16; UTF-8 has no such character.
constexpr bool isSurrogate(char32_t code) {
  return code >= 0xD800 && code <= 0xDFFF;
}

/// A code point that is never a character (Unicode 15, 23.7).
constexpr bool isNoncharacter(char32_t code) {
  return (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFE;
}

/// The character that begins at `at`, which is less than the size of `text`. The result has length
/// 0 if the bytes are incomplete, are a form that is too long, or are beyond U+10FFFF. A surrogate
/// in three bytes is returned like a character, because script engines write surrogates, although
/// RFC 3629 forbids this.
constexpr Utf8Character utf8CharacterAt(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const std::size_t length = utf8Length(text[at]);
  if (length < 2) return {length, length == 0 ? 0U : lead};
  if (length > text.size() - at) return {};
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!isUtf8Continuation(text[at + i])) return {};
    code = (code << 6U) | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
  }
  // utf8Length() has already refused two-byte forms that are too long (lead byte 0xC0 or 0xC1).
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  if (tooLong || code > 0x10FFFF) return {};
  return {length, code};
}

/// Whether `text` is well-formed: it consists only of characters, and none of them is a surrogate.
constexpr bool isUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, at);
    if (character.length == 0 || isSurrogate(character.code)) return false;
    at += character.length;
  }
  return true;
}

/// The longest beginning of `text` that has at most `limit` bytes and ends between two characters.
/// If the text is not UTF-8, the result may be up to three bytes shorter than necessary.
constexpr std::string_view utf8Head(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  constexpr int kMostContinuations = 3;
  std::size_t end = limit;
  for (int step = 0; step < kMostContinuations && end > 0; ++step) {
    if (!isUtf8Continuation(text[end])) break;
    --end;
  }
  return text.substr(0, end);
}

}  // namespace base
