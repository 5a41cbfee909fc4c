#include "engine/worker/utf8.h"

#include <algorithm>

#include "base/utf8.h"

namespace pac_worker {

std::string printableLine(std::string_view text, std::size_t limit) {
  std::string line;
  for (std::size_t at = 0; at < text.size() && line.size() < limit;) {
    const base::Utf8Character character = base::utf8CharacterAt(text, at);
    const bool control = character.code < 0x20U ||
                         (character.code >= 0x7FU && character.code < 0xA0U) ||
                         character.code == 0x2028U || character.code == 0x2029U;
    if (character.length == 0 || base::isSurrogate(character.code)) {
      line += '?';
    } else if (control) {
      line += ' ';
    } else {
      line += text.substr(at, character.length);
    }
    at += std::max<std::size_t>(character.length, 1);
  }
  line.resize(base::utf8Head(line, limit).size());
  return line;
}

std::u16string utf16Units(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const base::Utf8Character character = base::utf8CharacterAt(text, at);
    if (character.length == 0) {
      units += u'\uFFFD';
    } else if (character.code < 0x10000U) {
      units += static_cast<char16_t>(character.code);
    } else {
      units += static_cast<char16_t>(0xD7C0U + (character.code >> 10U));
      units += static_cast<char16_t>(0xDC00U + (character.code & 0x3FFU));
    }
    at += std::max<std::size_t>(character.length, 1);
  }
  return units;
}

}  // namespace pac_worker
