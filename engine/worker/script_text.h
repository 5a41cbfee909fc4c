// Converts the bytes of a script to its text.
#pragma once

#include <string>
#include <string_view>

namespace pac_worker {

/// The text of a script, in UTF-8. A NUL byte ends it; it is UTF-8 with or without BOM, or, if
/// it is not well-formed UTF-8, ISO-8859-1. CR and CRLF come out as LF: the language takes them
/// alike, but the engine counts lines by LF.
std::string decodeScript(std::string_view bytes);

}  // namespace pac_worker
