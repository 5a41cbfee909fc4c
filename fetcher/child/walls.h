// The walls of proxymanager-fetch, and of no other program; sandbox/walls.h has the functions that
// every child process shares. Its list of system calls is in walls.cpp. The process raises the
// walls before it reads the first byte of a request.
//
// A server that takes libcurl over finds these walls: no new privileges; the user nobody if the
// daemon runs as root, else the daemon's user without capabilities; limits for memory, processor
// time, descriptors and file length; one writable file, the one for the body; only the files that a
// network client reads (if the kernel has Landlock); only sockets of the internet protocols and of
// the kernel's routing tables; no process to start, signal or trace. A system call that is not on
// the list ends the process.
#pragma once

#include "sandbox/walls.h"

namespace fetch_child {

/// Raises all walls around this process, which has one thread.
/// @param fileBytes the longest file that the process may write
/// @param limitsFiles receives whether Landlock is in force; a kernel without it is no failure
/// @return nothing, or which wall could not be raised and why; the process must then end
sandbox::Failure raiseWalls(rlim_t fileBytes, bool& limitsFiles);

}  // namespace fetch_child
