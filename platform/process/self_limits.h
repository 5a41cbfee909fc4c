// Limits that a daemon with secrets and many callers sets for itself, under any supervisor.
//
// A unit file can set most of these limits. But a device with another supervisor has no unit file,
// so the process sets them itself. Call these functions at the start of main(), before other
// threads start.
#pragma once

namespace process {

/// Prevents secrets of the process, such as a proxy's password, from leaving its memory. The
/// process writes no core dump (the limit is 0, also for child processes), and only root can trace
/// it or read its memory. A program that the process executes can be traced again. A sanitized
/// build stays traceable, because its leak check traces the process.
void forbidDumps();

/// Empties the ambient set. The process keeps the capabilities that a supervisor gave it, and the
/// programs that it executes get none of them. Does nothing if the kernel has no ambient set.
void keepCapabilitiesFromChildren();

/// Makes the allocator return large blocks to the system when they are freed. By default, the
/// allocator maps large blocks separately. When it frees the first large block, it raises the size
/// from which a block counts as large, to 32 MiB at most. Later blocks then come from a heap, and
/// freed blocks stay in this heap. There can be eight heaps per processor. So after two bus
/// messages of 31 MiB, the process still had 95 MB.
void returnFreedMemory();

}  // namespace process
