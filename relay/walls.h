// The sandbox that the relay enters before it accepts the first connection. The sandbox is needed
// because the relay reads bytes from any program and any server.
#pragma once

#include "sandbox/walls.h"

namespace relay {

/// Enters the sandbox. If the relay runs as root, it changes to the user nobody. It gives up all
/// privileges and capabilities. After that, it can write no file and no core dump, it can start no
/// program, and no debugger can read its memory. Only system calls on a list are allowed. If the
/// kernel has Landlock, the relay can read only the files for names, users and certificates. Call
/// this function after the configuration has been read and the sockets are open, while the process
/// has one thread.
sandbox::Failure raiseWalls();

}  // namespace relay
