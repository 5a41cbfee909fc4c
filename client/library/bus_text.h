// Texts that may travel over the bus.
#pragma once

#include <string_view>

namespace client {

/// Whether `text` is UTF-8 without NUL, which is all that the bus carries, and without Unicode's
/// noncharacters, which its library does not take.
bool isBusText(std::string_view text);

}  // namespace client
