// Parses the text of the lease file. The function does not use the file.
#pragma once

#include <string>
#include <string_view>

namespace netservice {

/// The value of DHCP option 252 in the lease file's text: the value of the last line with the key
/// `wpad`.
///
/// A line is `key=value`; blanks around both are ignored, other lines are skipped. The value is cut
/// at the first NUL, CR or LF, read as a POSIX shell reads one word's quotes ('...', "...",
/// backslash; a quote that is never closed ends with the line), and stripped of the blanks and
/// quotes that are then outermost. Bytes above 127 stay as they are.
/// @param text the whole file, any bytes
/// @return the value, of any length; empty if there is none
std::string wpadValue(std::string_view text);

}  // namespace netservice
