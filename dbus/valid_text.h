// Texts that the daemon may send over the bus.
#pragma once

#include <string>

/// Returns `text` if it is valid UTF-8, else a copy with "?" in place of each byte above 127.
/// libdbus ends the process if it gets a text that is not UTF-8.
std::string validText(const std::string& text);
