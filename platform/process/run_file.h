// The run file: it allows only one running instance of a daemon, and contains the process id of
// that instance.
#pragma once

/// Locks the run file NAME.pid, writes this process's id into it and keeps it open and locked until
/// the process ends. An orderly end of the process removes the file.
///
/// The kernel keeps the lock (flock), so a file that a killed instance has left does not prevent a
/// start. The descriptor is closed on exec, so no child process continues to hold the lock. The
/// file is in /run for root, else in the user's runtime folder (XDG_RUNTIME_DIR, or /run/user/UID
/// if this variable is not set). Call it once, from the main thread, after any fork.
///
/// @param name the daemon's name; one path component
/// @return 0 if this process has locked the file; 1 if another running process has locked it; -1
///         after any other failure. If the result is not 0, the log has the reason: "process: the
///         run file PATH is held by process PID" (LOG_WARNING) or "process: cannot take the run
///         file PATH: REASON" (LOG_ERR)
int create_varrunpid(const char* name);
