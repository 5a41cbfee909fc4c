// The log lines of a fuzz target. If a target is linked with log.cpp, the syslog functions of
// log.cpp replace those of the C library. Each line is formatted, so that the sanitizers check the
// reading of its texts. A line is kept only during the call.
#pragma once

#include <string_view>

namespace fuzz {

/// Called for each line of the process, on the thread that logs it. If the pointer is null, no
/// function is called.
using LineCheck = void (*)(int priority, std::string_view line);
inline LineCheck onLogLine = nullptr;

}  // namespace fuzz
