// What main.cpp and the commands share. Each command is one file. It adds itself, with its help, to
// the program's grammar. It also sets the action that main.cpp runs when the whole command line is
// parsed.
#pragma once

#include <functional>

#include "client/ctl/failure.h"

namespace client {

/// The work of a command. @return the exit status; throws Failure
using Action = std::function<ExitStatus()>;

}  // namespace client
