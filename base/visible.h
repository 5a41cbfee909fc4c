// Converts text from outside to a form that is safe in a log line or on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace base {

/// `text` as well-formed UTF-8 without control characters. Each control character (U+0000 to
/// U+001F, U+007F to U+009F) becomes "\xNN". Each byte that is not part of a character becomes
/// "\xNN", too. So a log line stays one line, and no text can control a terminal. Throws
/// std::bad_alloc.
std::string visible(std::string_view text);

}  // namespace base
