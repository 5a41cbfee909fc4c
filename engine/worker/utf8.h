// Converts a script's texts to one line of a log and to units of UTF-16. base/utf8.h has the other
// functions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pac_worker {

/// `text` in a form for one log line, cut at `limit` bytes. Control characters become blanks, and
/// bytes that are not UTF-8 become "?".
std::string printableLine(std::string_view text, std::size_t limit);

/// The UTF-16 code units of a text of the engine: UTF-8 in which an unpaired surrogate is written
/// in three bytes like any other code point. Other bytes become U+FFFD.
std::u16string utf16Units(std::string_view text);

}  // namespace pac_worker
