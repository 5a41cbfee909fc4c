// Captures the lines that this process logs to syslog, for tests.
//
// The syslog functions of tests/support replace those of the C library. Lines that setlogmask hides
// are not captured. Lines of all threads are kept in their order.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

struct LogLine {
  int priority;      ///< LOG_ERR ... LOG_DEBUG
  std::string text;  ///< formatted, exact to the blank
  bool operator==(const LogLine&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const LogLine& line);

/// From now on, lines that equal `text` are not captured. Without a text, all lines are captured
/// again.
void leaveOutOfLog(const std::optional<std::string>& text);

/// The lines that were logged since the process began or since the last clearLog().
std::vector<LogLine> logLines();
void clearLog();

/// How many captured lines equal `text` and have `priority`.
int countLog(int priority, const std::string& text);

/// Whether one captured line equals `text` at `priority`.
inline bool logged(int priority, const std::string& text) {
  return countLog(priority, text) > 0;
}

/// Waits until a line that equals `text` has been logged `times` times at `priority`, at most 60 s.
/// @return whether the line has been logged
bool waitForLog(int priority, const std::string& text, int times = 1);
