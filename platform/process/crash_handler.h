// The report of a process that dies from a fatal signal: the signal, the place, and the stack of
// calls.
//
// On SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and SIGSYS the thread that got the signal writes a
// stack trace to syslog (LOG_CRIT, under the daemon's ident) and to stderr. If stderr is the
// journal and syslog accepts the lines, the handler writes them only to syslog, so that the journal
// has them only once. Then the default action of the signal ends the process, with the signal's own
// details, so the exit status shows the signal. For example, the lines are:
//
//     process: fatal signal 11 (SIGSEGV) at 0x0 in thread proxymanager_se (1234)
//     process: #0 0x000055d0c0ffee12 proxymanagerd+0x1e12 (_ZN9PacParser5startEv+0x12)
//
// The number after the plus sign of a module is the address for addr2line -e MODULE. The names come
// from the loader; c++filt makes them readable. The loader has only the exported names of a
// program, so link the program with ENABLE_EXPORTS.
//
// Nothing that the handler calls allocates memory. The only lock that it needs is the loader's, and
// a thread that already holds this lock may take it again. syslog() cannot be used, because it
// locks, formats dates and allocates. So the handler formats each line in its own buffer and sends
// datagrams to /dev/log, as syslog() does. It uses a socket that was opened before the crash and
// never connected. So the lines also reach a log daemon that has restarted in between. If the log
// or stderr accepts nothing, the handler waits for a tenth of a second, once. If the unwinding
// hangs, SIGALRM ends the process after some seconds. Only the main thread has the alternate stack,
// so a stack overflow on another thread ends the process without a trace.
#pragma once

/// Installs the handler. Call it once, on the main thread, before other threads start.
/// @return 0, or -1 if a handler cannot be installed; the log line is then "process: cannot install
///         the crash handler: REASON" (LOG_ERR)
int initCrashHandler();
