// Converts the bytes of a script to its text.
#pragma once

#include <string>
#include <string_view>

namespace pac_worker {

/// The text of a script, in UTF-8. A NUL byte ends it. The bytes are UTF-8 with or without BOM; if
/// they are not valid UTF-8, they are ISO-8859-1. CR and CRLF become LF: for the language they are
/// equal, but the engine counts lines only by LF.
std::string decodeScript(std::string_view bytes);

}  // namespace pac_worker
