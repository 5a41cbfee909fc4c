// The reports of this process to its supervisor: systemd, over the socket named in NOTIFY_SOCKET.
//
// A process that a person or another kind of supervisor started has nobody to report to: every
// function then succeeds and does nothing. The main thread calls all but notifyStatus. A
// notification is one datagram; if the supervisor accepts none, the call waits, and the
// supervisor's watchdog sees that.
#pragma once

#include <chrono>
#include <string>

/// How often the main loop feeds the watchdog. A WatchdogSec of less than twice that ends a healthy
/// daemon; restart_connect() logs a warning.
inline constexpr std::chrono::seconds kWatchdogFeedInterval{20};

/// Registers with the supervisor: READY=1, and what the process is as STATUS.
///
/// The daemon calls it before it owns its bus name. So units have Type=dbus: their readiness is the
/// name, and READY changes nothing. A unit of Type=notify would count as started a moment early.
///
/// @param name the daemon's name, for the status text
/// @return 0 if it was reported or if there is no supervisor, else -1, with a LOG_ERR line:
/// "process: cannot tell the supervisor: REASON"
int restart_connect(const char* name);

/// Feeds the supervisor's watchdog, if this process has one (WATCHDOG_USEC, WATCHDOG_PID).
/// Call it every kWatchdogFeedInterval. @return as restart_connect
int feedWatchdog();

/// Reports that an orderly stop has begun: STOPPING=1. @return as restart_connect
int notifyStopping();

/// Reports what the process does, for people who look at the service: STATUS=text. Any thread.
/// @param text one line
/// @return as restart_connect
int notifyStatus(const std::string& text);
