// The date and time helpers of PAC scripts, free of any engine type.
//
// All three look at the environment's clock once, in the device's zone, or in UTC where the last
// argument is "GMT". What is not understood holds at no time.
#pragma once

#include <span>
#include <string>
#include <variant>

#include "engine/worker/pac_environment.h"

namespace pac_worker {

/// An argument of a helper: a number, or any other value's text. A text of decimal digits counts as
/// its number.
using RangeArgument = std::variant<double, std::string>;

/// What timeRange() makes of its arguments.
enum class TimeRange : std::uint8_t { kOutside, kInside, kBadCount };

/// (wd1[, wd2][, "GMT"]), "SUN" to "SAT": true on that day, or from wd1 to wd2, round the end of
/// the week.
bool weekdayRange(PacEnvironment& environment, std::span<const RangeArgument> arguments);

/// One to six of day (1 to 31), month ("JAN" to "DEC") and year (four digits), and "GMT": one is
/// compared for itself; of more, the first half is the first day and the rest the last day of a
/// range that runs round the end of the year where the last day is before the first. What is not
/// said is 1 January and 31 December of this year; day 31 stays where no day is said at all, so
/// that a range that ends with a shorter month runs on into the next. (day, day) and (day, month)
/// are days of the current month, the latter up to its end. "GMT" alone is true.
bool dateRange(PacEnvironment& environment, std::span<const RangeArgument> arguments);

/// (hour), (hour1, hour2), (hour1, minute1, hour2, minute2), (hour1, minute1, second1, hour2,
/// minute2, second2), and "GMT". Both ends belong to it, whole; only the last two forms run round
/// midnight.
/// @return kBadCount for another count of numbers; none at all is kOutside
TimeRange timeRange(PacEnvironment& environment, std::span<const RangeArgument> arguments);

}  // namespace pac_worker
