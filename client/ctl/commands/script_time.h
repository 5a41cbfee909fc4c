// The point in time that a script is asked to take for now, and the zone in which it looks at it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace client {

/// A date and time of day as written, with its distance from UTC where that is written too.
struct WrittenTime {
  std::chrono::year_month_day day{};
  std::chrono::seconds timeOfDay{0};
  std::optional<std::chrono::seconds> offset;  ///< east of UTC
};

/// Reads ISO 8601 in its extended or basic form: a date, "T" (or a blank) and hours and minutes,
/// then seconds and a fraction, which is dropped, then "Z", +hh, +hh:mm or +hhmm. A date alone is
/// its midnight.
/// @return nothing where `text` is none of that, or no day or time that there is
std::optional<WrittenTime> parseTime(std::string_view text);

/// The TZ value of the zone database's entry `name`, for instance "Europe/Berlin"; of the device's
/// own zone where there is no name. The variable TZ of the caller is not looked at, as the daemon
/// does not.
/// @return nothing where the database has no such zone
std::optional<std::string> zoneVariable(const std::optional<std::string>& name);

/// Seconds since 1970 at `time`, which is in the zone of that TZ value unless it bears an offset.
/// Of a time that the clocks of the zone show twice when summer ends, the first is meant. Leaves
/// the process in that zone; not for a program with other threads.
/// @return nothing for a time that the zone's clocks skip
std::optional<std::int64_t> instantOf(const WrittenTime& time, const std::string& variable);

}  // namespace client
