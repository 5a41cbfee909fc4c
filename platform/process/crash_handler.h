// The report of a process that dies from a fatal signal: the signal, the place, and the calls that
// led there.
//
// On SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and SIGSYS the thread that got the signal writes a
// stack trace to syslog (LOG_CRIT, under the daemon's ident) and to stderr. If stderr is the
// journal and syslog accepts the lines, the handler writes them only to syslog, so that the journal
// has them once. Then the signal takes its default action, with its own details: the exit status
// shows the signal. For example, the lines are:
//
//     process: fatal signal 11 (SIGSEGV) at 0x0 in thread proxymanager_se (1234)
//     process: #0 0x000055d0c0ffee12 proxymanagerd+0x1e12 (_ZN9PacParser5startEv+0x12)
//
// addr2line -e takes the part after the plus sign of a module. The names are those of the loader;
// c++filt makes them readable. The loader knows only exported names of a program: link it with
// ENABLE_EXPORTS.
//
// Nothing that the handler calls allocates. The one lock is the loader's, and a thread that holds
// it may take it again. syslog() locks, formats dates and allocates. So the handler formats into a
// buffer of its own and sends datagrams to /dev/log, as syslog() does. It uses a socket that was
// opened before and never connected, so it also reaches a log daemon that was restarted since then.
// If the log or stderr accepts nothing, the handler waits a tenth of a second, once. If the
// unwinding hangs, SIGALRM ends it after some seconds. Only the main thread has the alternate
// stack, so a stack overflow on another thread ends the process without a trace.
#pragma once

/// Installs the handler. Call it once, on the main thread, before others start.
/// @return 0, or -1 if a handler cannot be installed; the log line is then "process: cannot install
///         the crash handler: REASON" (LOG_ERR)
int initCrashHandler();
