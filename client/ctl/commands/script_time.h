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

/// Reads ISO 8601 in its extended or basic form: a date, "T" or a blank, hours and minutes. Seconds
/// may follow; their fraction is dropped. Then "Z", +hh, +hh:mm or +hhmm may follow. A date without
/// a time means midnight.
/// @return nothing if `text` has another form, or if there is no such day or time
std::optional<WrittenTime> parseTime(std::string_view text);

/// The TZ value for the entry `name` of the zone database, for example "Europe/Berlin". Without a
/// name, it is the value for the device's own zone. Like the daemon, the function ignores the
/// caller's variable TZ.
/// @return nothing if the database has no such zone
std::optional<std::string> zoneVariable(const std::optional<std::string>& name);

/// Seconds since 1970 at `time`. If `time` has no offset, it is in the zone of `variable`, a TZ
/// value. At the end of summer time, clocks show one hour twice; a time in this hour means the
/// first of the two. The process stays in this zone, so a program with other threads must not call
/// this function.
/// @return nothing for a time that the zone's clocks skip
std::optional<std::int64_t> instantOf(const WrittenTime& time, const std::string& variable);

}  // namespace client
