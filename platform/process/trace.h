// Trace values: how much a daemon logs. A file and SIGHUP change it on a running device.
//
// The file is /etc/NAME/trace.conf, lines of key=value; `baseseverity` sets syslog's mask, the
// other four are for programs that read the record. The parsing is separate from the reading, and
// is a pure function of the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

/// The trace values of a daemon. Without a file they are as initialised here.
struct TraceValues {
  std::int32_t baseseverity = 6;  ///< the least severe syslog level that is logged, 0 ... 7
  std::int32_t persistent = 0;
  std::int32_t tracemask = 0;
  std::int32_t option = 0;
  std::int32_t data = 0;
  bool operator==(const TraceValues&) const = default;
};

/// Reads /etc/NAME/trace.conf and sets syslog's mask to everything up to `baseseverity`.
///
/// Each call begins with the values of TraceValues above: a key that is no longer in the file has
/// its default again. A missing file is no failure. The file must be regular and have at most
/// kTraceFileLimit bytes; the function does not wait for a fifo. If the file is refused or cannot
/// be read, the mask stays as it is.
///
/// A signal handler may call it only if the signal arrived while its thread slept. The daemon's
/// main thread unblocks signals only while it sleeps.
///
/// @param name the daemon's name; one path component
/// @param record receives the values, the defaults on failure. A line that is not understood is
/// logged ("process: PATH line N is not understood: TEXT", LOG_WARNING), and so is a failure
/// ("process: cannot read PATH: REASON", LOG_ERR). With null nothing is logged.
/// @return 0, or -1 if there is a file that cannot be read
int settrcvalues(const char* name, TraceValues* record);

namespace process {

/// Five short lines and room for comments; more is not a trace file.
inline constexpr std::size_t kTraceFileLimit = 4096;

/// Called for a line that is not understood, with its number from 1 and its text.
using BadTraceLine = std::function<void(int number, std::string_view line)>;

/// The values that `text` gives, over the defaults.
///
/// A line is "key=value", a comment that begins with '#', or empty; blanks around lines, keys and
/// values do not count. Values are decimal, or hexadecimal after 0x: up to eight digits are
/// the bits of the value. Of two lines with one key the later counts. A line with another key,
/// another form, a value beyond 32 bits or a `baseseverity` outside 0 ... 7 changes nothing and is
/// given to `bad`. Any bytes are accepted.
TraceValues parseTraceValues(std::string_view text, const BadTraceLine& bad);

}  // namespace process
