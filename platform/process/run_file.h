// The run file: it allows only one live instance of a daemon, and holds the process id of that
// instance.
#pragma once

/// Takes the run file NAME.pid, writes this process's id into it and keeps it open and locked until
/// the process ends. An orderly end removes it.
///
/// The lock is the kernel's (flock), so the remaining file of a killed instance does not prevent a
/// start. The descriptor is closed on exec: no child keeps the lock alive. The file is in /run for
/// root, else in the user's runtime folder (XDG_RUNTIME_DIR, or /run/user/UID if that is not set).
/// Call it once, from the main thread, after any fork.
///
/// @param name the daemon's name; one path component
/// @return 0 if this process holds the file; 1 if another live process does; -1 if this process
///         cannot take the file for another reason. The log has the reason: "process: the run file
///         PATH is held by process PID" (LOG_WARNING) or "process: cannot take the run file PATH:
///         REASON" (LOG_ERR)
int create_varrunpid(const char* name);
