// The lines that a fuzz target says. Linking this puts its own syslog functions before the C
// library's: each line is formatted, so that the sanitizers see the texts read, and kept no longer
// than the call.
#pragma once

#include <string_view>

namespace fuzz {

/// Called for each line of the process, on the thread that says it; null: nobody is.
using LineCheck = void (*)(int priority, std::string_view line);
inline LineCheck onLogLine = nullptr;

}  // namespace fuzz
