#include "client/library/bus_text.h"

#include "base/utf8.h"

namespace client {

bool isBusText(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto character = base::utf8CharacterAt(text, at);
    if (character.length == 0 || character.code == 0 || base::isSurrogate(character.code) ||
        base::isNoncharacter(character.code)) {
      return false;
    }
    at += character.length;
  }
  return true;
}

}  // namespace client
