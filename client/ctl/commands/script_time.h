// The point in time that a script gets as the present, and its time zone.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace client {

/// A date and time of day as written, with its offset from UTC if that is written, too.
struct WrittenTime {
  std::chrono::year_month_day day{};
  std::chrono::seconds timeOfDay{0};
  std::optional<std::chrono::seconds> offset;  ///< east of UTC
};

/// Reads ISO 8601 in its extended or basic form: a date, "T" (or a blank) and hours and minutes,
/// then seconds and a fraction, which is dropped, then "Z", +hh, +hh:mm or +hhmm. A date alone is
/// its midnight.
/// @return nothing if `text` has another form, or if there is no such day or time
std::optional<WrittenTime> parseTime(std::string_view text);

/// The TZ value for the entry `name` of the zone database, for instance "Europe/Berlin"; without a
/// name, the value for the device's own zone. Ignores the caller's variable TZ, as the daemon does.
/// @return nothing if the database has no such zone
std::optional<std::string> zoneVariable(const std::optional<std::string>& name);

/// Seconds since 1970 at `time`. If `time` has no offset, it is in the zone of that TZ value. When
/// summer time ends, clocks show an hour twice; `time` then means the first. The process stays in
/// that zone. Not for a program with other threads.
/// @return nothing for a time that the zone's clocks skip
std::optional<std::int64_t> instantOf(const WrittenTime& time, const std::string& variable);

}  // namespace client
