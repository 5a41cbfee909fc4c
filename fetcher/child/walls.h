// The restrictions ("walls") of proxymanager-fetch. sandbox/walls.h has the functions that all
// child processes use. The list of system calls is in walls.cpp. The process puts the restrictions
// on itself before it reads the first byte of a request.
//
// The restrictions remain in force if a server takes control of libcurl. The process gets no new
// privileges. If the daemon runs as root, the user of the process is nobody. Otherwise the process
// has the daemon's user, without capabilities. Memory, CPU time, descriptors and file length are
// limited, and the process lives for 31 s at most. It can write only the file for the body. If the
// kernel has Landlock, it can read only the files that a network client needs. It can open only
// sockets for TCP, UDP and the kernel's routing tables. It cannot start, signal or trace a process.
// A system call that is not on the list ends the process.
#pragma once

#include <span>

#include "sandbox/walls.h"

namespace fetch_child {

/// Puts all restrictions on this process, which has one thread.
/// @param fileBytes the longest file that the process may write
/// @param certificates files and folders that the TLS library reads, in addition to the usual ones;
/// they are opened now, so they may be links to another place
/// @param limitsFiles receives whether Landlock is in force; a kernel without Landlock is not a
/// failure
/// @return nothing; after a failure, the name of the restriction that failed and the reason: the
/// process must then end
sandbox::Failure raiseWalls(rlim_t fileBytes, std::span<const char* const> certificates,
                            bool& limitsFiles);

}  // namespace fetch_child
