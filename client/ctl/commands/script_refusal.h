// Checks whether the daemon can use a script.
#pragma once

#include <string>

namespace client {

/// Loads the script of the file `path` as the daemon does. @return why it is refused; empty if it
/// loads
std::string refusalOf(const char* path);

}  // namespace client
