// Converts a script's texts to a line of the log, or to UTF-16 code units. base/utf8.h has the
// other functions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pac_worker {

/// `text` in a form for one log line, cut at `limit` bytes. Control characters become blanks, and
/// bytes that are not UTF-8 become "?".
std::string printableLine(std::string_view text, std::size_t limit);

/// The UTF-16 code units of a text from the engine. The engine's texts are UTF-8, but an unpaired
/// surrogate is three bytes, as if it were any other code point. Other bytes become U+FFFD.
std::u16string utf16Units(std::string_view text);

}  // namespace pac_worker
