#include "base/visible.h"

#include <cstddef>

#include "base/utf8.h"

namespace base {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

void appendEscaped(std::string& shown, unsigned byte) {
  shown += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 15U]};
}

void appendEscapedCode(std::string& shown, unsigned code) {
  shown += "\\u{";
  for (unsigned shift = 16; shift > 0; shift -= 4) shown += kDigits[(code >> (shift - 4U)) & 15U];
  shown += '}';
}

bool isControlCode(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

/// Whether the character breaks a line, or changes the direction of the characters around it.
bool isLayoutCode(char32_t code) {
  return code == 0x61C || code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string visible(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, at);
    if (character.length == 0 || isSurrogate(character.code)) {
      // The byte is escaped, because some terminals treat such a single byte as a control
      // character.
      appendEscaped(shown, static_cast<unsigned char>(text[at++]));
      continue;
    }
    if (isControlCode(character.code)) {
      appendEscaped(shown, static_cast<unsigned>(character.code));
    } else if (isLayoutCode(character.code)) {
      appendEscapedCode(shown, static_cast<unsigned>(character.code));
    } else {
      shown += text.substr(at, character.length);
    }
    at += character.length;
  }
  return shown;
}

}  // namespace base
