// What main.cpp and the commands share. Each command is one file: it adds itself to the program's
// grammar, with its help, and leaves what is to be done once the whole command line is understood.
#pragma once

#include <functional>

#include "client/ctl/failure.h"

namespace client {

/// Does what a command asks for. @return how the program ends; throws Failure
using Action = std::function<ExitStatus()>;

}  // namespace client
