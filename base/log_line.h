// The only function of this tree that writes to syslog.
//
// The compiler checks the format, as for printf. syslog itself drops masked lines (setlogmask), so
// a masked line costs one call and no formatting. Nothing is added to the text.
#pragma once

#include <syslog.h>

/// The ident of the daemon's lines in the log.
inline constexpr char kLogIdent[] = "proxymanager_service";

/// Logs one line at `priority` (LOG_ERR ... LOG_DEBUG), formatted as printf does; a null text for a
/// "%s" shows as "(null)". Any thread. Never fails: if syslog does not accept a line, the line is
/// lost.
void logLine(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
