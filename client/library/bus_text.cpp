#include "client/library/bus_text.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace client {

namespace {

/// Bytes that follow `first` in its character, and the least code point that needs them.
std::optional<std::pair<int, std::uint32_t>> sequence(unsigned char first) {
  if (first < 0x80) return std::pair{0, 0U};
  if (first >= 0xC2 && first < 0xE0) return std::pair{1, 0x80U};
  if (first >= 0xE0 && first < 0xF0) return std::pair{2, 0x800U};
  if (first >= 0xF0 && first < 0xF5) return std::pair{3, 0x10000U};
  return std::nullopt;
}

/// Neither past the last plane, nor a surrogate, nor a noncharacter (Unicode 15, 2.4 and 23.7).
bool isCharacter(std::uint32_t code) {
  return code <= 0x10FFFF && (code < 0xD800 || code >= 0xE000) &&
         (code < 0xFDD0 || code >= 0xFDF0) && (code & 0xFFFEU) != 0xFFFE;
}

}  // namespace

bool isBusText(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    const auto rest = sequence(first);
    if (first == 0 || !rest) return false;
    std::uint32_t code = rest->first == 0 ? first : first & (0x3FU >> rest->first);
    for (int n = 0; n < rest->first; ++n) {
      if (++i == text.size()) return false;
      const auto next = static_cast<unsigned char>(text[i]);
      if ((next & 0xC0U) != 0x80U) return false;
      code = (code << 6U) | (next & 0x3FU);
    }
    if (code < rest->second || !isCharacter(code)) return false;
  }
  return true;
}

}  // namespace client
