#include "engine/worker/utf8.h"

#include <algorithm>

namespace pac_worker {
namespace {

struct Character {
  std::size_t length = 0;  ///< bytes; 0 if the bytes are no character
  char32_t code = 0;
};

unsigned byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

std::size_t lengthOf(unsigned lead) {
  if (lead < 0x80U) return 1;
  if (lead >= 0xC2U && lead <= 0xDFU) return 2;
  if (lead >= 0xE0U && lead <= 0xEFU) return 3;
  return lead >= 0xF0U && lead <= 0xF4U ? 4 : 0;
}

// The character at `at`; a surrogate counts as one.
Character characterAt(std::string_view text, std::size_t at) {
  const unsigned lead = byteAt(text, at);
  const std::size_t length = lengthOf(lead);
  if (length < 2) return {length, lead};
  if (length > text.size() - at) return {};
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned next = byteAt(text, at + i);
    if ((next & 0xC0U) != 0x80U) return {};
    code = (code << 6U) | (next & 0x3FU);
  }
  const bool overlong = (length == 3 && code < 0x800U) || (length == 4 && code < 0x10000U);
  if (overlong || code > 0x10FFFFU) return {};
  return {length, code};
}

bool isSurrogate(char32_t code) {
  return code >= 0xD800U && code <= 0xDFFFU;
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const Character character = characterAt(bytes, at);
    if (character.length == 0 || isSurrogate(character.code)) return false;
    at += character.length;
  }
  return true;
}

std::size_t utf8Head(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text.size();
  std::size_t head = limit;
  while (head > 0 && (byteAt(text, head) & 0xC0U) == 0x80U) --head;
  return head;
}

std::string printableLine(std::string_view text, std::size_t limit) {
  std::string line;
  for (std::size_t at = 0; at < text.size() && line.size() < limit;) {
    const Character character = characterAt(text, at);
    const bool control = character.code < 0x20U ||
                         (character.code >= 0x7FU && character.code < 0xA0U) ||
                         character.code == 0x2028U || character.code == 0x2029U;
    if (character.length == 0 || isSurrogate(character.code)) {
      line += '?';
    } else if (control) {
      line += ' ';
    } else {
      line += text.substr(at, character.length);
    }
    at += std::max<std::size_t>(character.length, 1);
  }
  line.resize(utf8Head(line, limit));
  return line;
}

std::u16string utf16Units(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
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
