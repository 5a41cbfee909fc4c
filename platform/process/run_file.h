// The run file: one live instance of a daemon, and where to find its process id.
#pragma once

/// Takes the run file NAME.pid, writes this process's id into it and keeps it open and locked until
/// the process ends; then it is removed, where the end was orderly.
///
/// The lock is the kernel's (flock), so a file left over by a killed instance is no obstacle. The
/// descriptor is closed on exec: no child keeps the lock alive. It stands in /run for root, else in
/// the user's runtime folder (XDG_RUNTIME_DIR, or /run/user/UID where that is not set). Call it
/// once, from the main thread, after any fork.
///
/// @param name the daemon's name; one path component
/// @return 0 when this process holds the file; 1 when another live process does; -1 when it cannot
///         be had for another reason. Syslog says which: "process: the run file PATH is held by
///         process PID" (LOG_WARNING) or "process: cannot take the run file PATH: REASON" (LOG_ERR)
int create_varrunpid(const char* name);
