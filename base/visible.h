// Converts text from outside to a form that is safe in a log line or on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace base {

/// `text` as well-formed UTF-8 without control characters. Each control character (U+0000 to
/// U+001F, U+007F to U+009F) becomes "\xNN". Each byte that is not part of a character becomes
/// "\xNN", too. A character that breaks a line (U+2028, U+2029) or changes the direction of the
/// text (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069) becomes "\u{NNNN}". So a log
/// line stays one line, no text can control a terminal, and the characters are shown in the order
/// of the text. Throws std::bad_alloc.
std::string visible(std::string_view text);

}  // namespace base
