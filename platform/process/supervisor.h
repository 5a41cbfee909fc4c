// The reports of this process to its supervisor (systemd), over the socket that NOTIFY_SOCKET
// names.
//
// If a person or another kind of supervisor started the process, there is no receiver: every
// function then succeeds and does nothing. The main thread calls all functions except notifyStatus.
// A notification is one datagram. If the supervisor accepts no datagram, the call waits, and the
// supervisor's watchdog notices that.
#pragma once

#include <chrono>
#include <string>

/// Time between two notifications of the watchdog by the main loop. If WatchdogSec is less than
/// twice this time, the watchdog could end a healthy daemon, so restart_connect() logs a warning.
inline constexpr std::chrono::seconds kWatchdogFeedInterval{20};

/// Registers with the supervisor: sends READY=1, and a description of the process as STATUS.
///
/// The daemon calls this function before it owns its bus name. So its units have Type=dbus: such a
/// unit is ready when the daemon owns the name, and READY=1 has no effect. With Type=notify, the
/// unit would count as started a moment too early.
///
/// @param name the daemon's name, for the status text
/// @return 0 if this was reported or if there is no supervisor, else -1, with a LOG_ERR line:
/// "process: cannot tell the supervisor: REASON"
int restart_connect(const char* name);

/// Notifies the supervisor's watchdog, if this process has a watchdog (WATCHDOG_USEC,
/// WATCHDOG_PID).
/// Call it every kWatchdogFeedInterval. @return as restart_connect
int feedWatchdog();

/// Reports that an orderly stop has begun: STOPPING=1. @return as restart_connect
int notifyStopping();

/// Reports what the process does, for people who look at the service: STATUS=text. Any thread.
/// @param text one line
/// @return as restart_connect
int notifyStatus(const std::string& text);
