#include "base/visible.h"

#include <cstddef>

#include "base/utf8.h"

namespace base {
namespace {

void appendEscaped(std::string& shown, unsigned byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  shown += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 15U]};
}

bool isControlCode(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

}  // namespace

std::string visible(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, at);
    if (character.length == 0 || isSurrogate(character.code)) {
      // A single byte of this range is not a character, and some terminals treat it as a control
      // character.
      appendEscaped(shown, static_cast<unsigned char>(text[at++]));
      continue;
    }
    if (isControlCode(character.code)) {
      appendEscaped(shown, static_cast<unsigned>(character.code));
    } else {
      shown += text.substr(at, character.length);
    }
    at += character.length;
  }
  return shown;
}

}  // namespace base
