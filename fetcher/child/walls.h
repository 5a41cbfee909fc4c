// The walls of proxymanager-fetch, and of no other program; sandbox/walls.h has the functions that
// every child process shares. Its list of system calls is in walls.cpp. The process raises the
// walls before it reads the first byte of a request.
//
// A server that takes control of libcurl finds these walls. The process has no new privileges. Its
// user is nobody if the daemon runs as root, else the daemon's user without capabilities. Memory,
// processor time, descriptors and file length are limited, and its life to 31 s. It can write only
// the file for the body, and read only the files that a network client needs (if the kernel has
// Landlock). It can open only sockets of TCP, UDP and the kernel's routing tables. It cannot start,
// signal or trace a process. A system call that is not on the list ends the process.
#pragma once

#include <span>

#include "sandbox/walls.h"

namespace fetch_child {

/// Raises all walls around this process, which has one thread.
/// @param fileBytes the longest file that the process may write
/// @param certificates files and folders that the TLS library reads, beside the usual ones; they
/// are
///        opened now, so they may be links to another place
/// @param limitsFiles receives whether Landlock is in force; a kernel without it is no failure
/// @return nothing, or which wall could not be raised and why; the process must then end
sandbox::Failure raiseWalls(rlim_t fileBytes, std::span<const char* const> certificates,
                            bool& limitsFiles);

}  // namespace fetch_child
