// What this process tells its supervisor: systemd, over the socket named in NOTIFY_SOCKET.
//
// Started by hand, or by a supervisor of another kind, there is nobody to tell, and every function
// succeeds without doing anything. All but notifyStatus are called by the main thread. A
// notification is one datagram; a supervisor that takes none makes the call wait, and counts that
// as hanging.
#pragma once

#include <chrono>
#include <string>

/// How often the main loop feeds the watchdog. A WatchdogSec of less than twice that ends a healthy
/// daemon; restart_connect says so.
inline constexpr std::chrono::seconds kWatchdogFeedInterval{20};

/// Registers with the supervisor: READY=1, and what the process is as STATUS.
///
/// The daemon calls it before it owns its bus name, so units are to be of Type=dbus, for which
/// the name is the readiness and READY changes nothing; a unit of Type=notify would count as
/// started a moment early.
///
/// @param name the daemon's name, for the status text
/// @return 0 when told or when there is nobody to tell, else -1; syslog then says "process: cannot
///         tell the supervisor: REASON" (LOG_ERR)
int restart_connect(const char* name);

/// Feeds the supervisor's watchdog, where this process has one (WATCHDOG_USEC, WATCHDOG_PID).
/// To be called every kWatchdogFeedInterval. @return as restart_connect
int feedWatchdog();

/// Says that an orderly stop has begun: STOPPING=1. @return as restart_connect
int notifyStopping();

/// What the process is doing, for people who look at the service: STATUS=text. Any thread.
/// @param text one line @return as restart_connect
int notifyStatus(const std::string& text);
