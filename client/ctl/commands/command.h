// The type for the work of a command. Each command has its own source file. A function in it
// adds the command and its help to the parser of the command line. It also sets the action that
// main.cpp runs when the whole command line is parsed.
#pragma once

#include <functional>

#include "client/ctl/failure.h"

namespace client {

/// The work of a command. @return the exit status; throws Failure
using Action = std::function<ExitStatus()>;

}  // namespace client
