// Trace values: how much a daemon logs. To change them on a running device, an administrator
// changes a file and sends SIGHUP.
//
// The file is /etc/NAME/trace.conf with lines of key=value. `baseseverity` sets syslog's mask; the
// other four keys are for programs that read the record. The function that parses the text is
// separate from the one that reads the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

/// The trace values of a daemon. If there is no file, they have the values that are set here.
struct TraceValues {
  std::int32_t baseseverity = 6;  ///< the least severe syslog level that is logged, 0 ... 7
  std::int32_t persistent = 0;
  std::int32_t tracemask = 0;
  std::int32_t option = 0;
  std::int32_t data = 0;
  bool operator==(const TraceValues&) const = default;
};

/// Reads /etc/NAME/trace.conf and sets syslog's mask to all levels up to `baseseverity`.
///
/// Each call begins with the defaults of TraceValues: if a key is no longer in the file, it has its
/// default again. A missing file is no failure. The file must be a regular file of at most
/// kTraceFileLimit bytes; the function does not block on a fifo. If the file is refused or cannot
/// be read, the mask does not change.
///
/// A signal handler may call this function only if the signal arrived while the handler's thread
/// slept. This is so in the daemon: its main thread unblocks signals only while it sleeps.
///
/// @param name the daemon's name; one path component
/// @param record receives the values; after a failure, the defaults. If `record` is not null, a
/// line that is not understood is logged ("process: PATH line N is not understood: TEXT",
/// LOG_WARNING), and so is a failure ("process: cannot read PATH: REASON", LOG_ERR).
/// @return 0, or -1 if there is a file that cannot be read
int settrcvalues(const char* name, TraceValues* record);

namespace process {

/// Enough for five short lines and comments. A longer file is not a trace file.
inline constexpr std::size_t kTraceFileLimit = 4096;

/// Called for a line that is not understood, with its number from 1 and its text.
using BadTraceLine = std::function<void(int number, std::string_view line)>;

/// The values that `text` sets; all others have their defaults.
///
/// A line is "key=value", a comment that begins with '#', or empty; blanks around lines, keys and
/// values are ignored. A value is decimal, or hexadecimal after 0x; up to eight hexadecimal digits
/// are the bits of the value. If a key occurs twice, the later line counts. A line with another
/// key, another form, a value beyond 32 bits or a `baseseverity` outside 0 ... 7 changes nothing
/// and is passed to `bad`. Any bytes are accepted.
TraceValues parseTraceValues(std::string_view text, const BadTraceLine& bad);

}  // namespace process
