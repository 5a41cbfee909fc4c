#include "base/utf8.h"

namespace base {

Utf8Character utf8CharacterAt(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const std::size_t length = utf8Length(text[at]);
  if (length < 2) return {length, length == 0 ? 0U : lead};
  if (length > text.size() - at) return {};
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!isUtf8Continuation(text[at + i])) return {};
    code = (code << 6U) | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
  }
  // Of two bytes, the lead byte alone shows it.
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  if (tooLong || code > 0x10FFFF) return {};
  return {length, code};
}

bool isUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, at);
    if (character.length == 0 || isSurrogate(character.code)) return false;
    at += character.length;
  }
  return true;
}

std::string_view utf8Head(std::string_view text, std::size_t limit) {
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
