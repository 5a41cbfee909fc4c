// Limits that a daemon with secrets and many callers sets for itself, whatever supervisor starts
// it.
//
// A unit file can set most of these limits. A device with another supervisor has no unit, so the
// process sets them itself. Call each function first thing in main(), before other threads start.
#pragma once

namespace process {

/// Keeps secrets of the process, such as a proxy's password, in its memory. It writes no core dump
/// (the limit is 0, also for child processes), and only root can trace it or read its memory. A
/// program that it executes can be traced again. A sanitized build stays traceable, because its
/// leak check traces the process.
void forbidDumps();

/// Empties the ambient set. The process keeps the capabilities that a supervisor gave it, and the
/// programs that it executes get none of them. Does nothing without an ambient set.
void keepCapabilitiesFromChildren();

/// Makes the allocator return large blocks to the system when they are freed. By default, the first
/// freed large block raises the size from which blocks are mapped separately, up to 32 MiB. Later
/// blocks come from a heap that keeps them, and there is one heap for each of up to eight threads
/// per processor. So two bus messages of 31 MiB left 95 MB in the process.
void returnFreedMemory();

}  // namespace process
