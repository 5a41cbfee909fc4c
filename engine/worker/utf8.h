// UTF-8, as far as scripts and their texts need it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pac_worker {

/// True if `bytes` is well-formed UTF-8 (RFC 3629: no overlong form, no surrogate, nothing
/// beyond U+10FFFF).
bool isUtf8(std::string_view bytes);

/// The length of the longest head of `text` that has at most `limit` bytes and splits no character
/// of UTF-8.
std::size_t utf8Head(std::string_view text, std::size_t limit);

/// `text` fit for one log line: control characters become blanks, bytes that are no UTF-8 become
/// "?", cut at `limit` bytes.
std::string printableLine(std::string_view text, std::size_t limit);

/// The UTF-16 code units of a text of the engine: UTF-8 in which an unpaired surrogate is written
/// in three bytes like any other code point. Bytes that are not even that become U+FFFD.
std::u16string utf16Units(std::string_view text);

}  // namespace pac_worker
