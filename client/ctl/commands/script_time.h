// The time and the time zone that a script sees as the present.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace client {

/// A date and time of day as written, with its offset from UTC if it has one.
struct WrittenTime {
  std::chrono::year_month_day day{};
  std::chrono::seconds timeOfDay{0};
  std::optional<std::chrono::seconds> offset;  ///< east of UTC
};

/// Reads ISO 8601 in its extended or basic form: a date, "T" (or a blank), hours and minutes, then
/// optional seconds with a fraction, which is dropped, then optionally "Z", +hh, +hh:mm or +hhmm. A
/// date without a time means midnight.
/// @return nothing if `text` has another form, or if there is no such day or time
std::optional<WrittenTime> parseTime(std::string_view text);

/// The TZ value for the entry `name` of the zone database, for example "Europe/Berlin". Without a
/// name, the value for the device's own zone. It ignores the caller's variable TZ, as the daemon
/// does.
/// @return nothing if the database has no such zone
std::optional<std::string> zoneVariable(const std::optional<std::string>& name);

/// Seconds since 1970 at `time`. If `time` has no offset, its zone is the one of the TZ value. When
/// summer time ends, clocks show one hour twice; `time` then means the first one. The process stays
/// in this zone, so a program with other threads must not call this.
/// @return nothing for a time that the zone's clocks skip
std::optional<std::int64_t> instantOf(const WrittenTime& time, const std::string& variable);

}  // namespace client
