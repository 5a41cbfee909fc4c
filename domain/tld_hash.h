// The hash that sorts the public-suffix rules into buckets. The generator of the table uses it on
// the build machine, and the lookups use it on the device.
//
// It is the symbol hash of the ELF object format (System V ABI, "Hash Table") with one difference:
// it shifts right by 23 instead of 24. The bucket counts of the table depend on this hash.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/ascii.h"

namespace domain {

/// Adds one unit, a byte or a code point, to the hash `h`. The first `h` is 0.
constexpr std::uint32_t tldHashStep(std::uint32_t h, std::uint32_t unit) {
  h = (h << 4) + unit;
  h ^= (h & 0xF0000000u) >> 23;
  return h & 0x0FFFFFFFu;
}

/// The hash of the bytes of a text, for lookups. Rules are in lower case, but names may have
/// upper-case letters, so upper-case ASCII letters count as lower-case ones. If `text` continues an
/// earlier text, `h` is the hash of the earlier text.
constexpr std::uint32_t tldHashOf(std::string_view text, std::uint32_t h = 0) {
  for (const char c : text) h = tldHashStep(h, static_cast<unsigned char>(base::lowerCase(c)));
  return h;
}

}  // namespace domain
