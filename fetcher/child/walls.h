// The walls around proxymanager-fetch, raised before it reads the first byte of a request, let
// alone of an answer.
//
// What a server that breaks libcurl finds: no new privileges, the user nobody if the daemon is
// root's (else the daemon's user without capabilities), no memory, processor time, descriptors and
// file length beyond the limits below, no file to write but the one that takes the body, no file to
// read but what a network client needs (if the kernel has Landlock), no socket but those of the
// internet protocols and of the kernel's routing tables, no process to start, signal or trace. Any
// system call that is not on the list ends the process.
#pragma once

#include "sandbox/walls.h"

namespace fetch_child {

/// Raises all walls around this process, which has one thread.
/// @param fileBytes the longest file that the process may write
/// @param limitsFiles receives whether Landlock is in force; a kernel without it is no failure
/// @return nothing, or which wall could not be raised and why; the process must then end
sandbox::Failure raiseWalls(rlim_t fileBytes, bool& limitsFiles);

}  // namespace fetch_child
