// Parses the text of the lease file. The function does not read the file itself.
#pragma once

#include <string>
#include <string_view>

namespace netservice {

/// The value of DHCP option 252 in the lease file's text: the value of the last line with the key
/// `wpad`.
///
/// A line is `key=value`. Blanks around key and value are ignored, and other lines are skipped. The
/// value is cut at the first NUL, CR or LF. Its quotes are then read as in a word of a POSIX shell
/// ('...', "...", backslash; an unclosed quote ends with the line). Finally, blanks and quotes at
/// both ends are removed. Bytes above 127 are kept.
/// @param text the whole file, any bytes
/// @return the value, of any length; empty if there is none
std::string wpadValue(std::string_view text);

}  // namespace netservice
