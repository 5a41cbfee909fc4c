// Texts that may travel over the bus.
#pragma once

#include <string_view>

namespace client {

/// Whether `text` is UTF-8 without NUL and without Unicode's noncharacters. The bus carries only
/// UTF-8 without NUL, and the bus library refuses noncharacters.
bool isBusText(std::string_view text);

}  // namespace client
