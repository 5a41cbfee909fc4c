// The walls that the relay raises around itself before it takes the first connection: it reads what
// any program and any server sends.
#pragma once

#include "sandbox/walls.h"

namespace relay {

/// The user nobody if the relay is root's; no new privileges, no capability, no core file, no
/// debugger, no file written, no program started, and a list of system calls. Files are read only
/// where the system has its names, users and certificates (if the kernel has Landlock). To be
/// called on the one thread that there is, when the configuration has been read and the sockets are
/// open.
sandbox::Failure raiseWalls();

}  // namespace relay
