// Texts that may leave over the bus.
#pragma once

#include <string>

/// `text` where it is valid UTF-8, else a copy whose bytes above 127 are "?": libdbus ends the
/// process that hands it anything else.
std::string validText(const std::string& text);
