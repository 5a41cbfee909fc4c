#include "engine/worker/pac_dates.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <optional>
#include <string_view>

namespace pac_worker {
namespace {

using Arguments = std::span<const RangeArgument>;

constexpr std::array<std::string_view, 7> kWeekdays = {"SUN", "MON", "TUE", "WED",
                                                       "THU", "FRI", "SAT"};
constexpr std::array<std::string_view, 12> kMonths = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                                      "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};

const std::string* textOf(const RangeArgument& argument) {
  return std::get_if<std::string>(&argument);
}

template <std::size_t kCount>
std::optional<int> indexOf(const std::array<std::string_view, kCount>& names,
                           const RangeArgument& argument) {
  const std::string* const text = textOf(argument);
  if (text == nullptr) return std::nullopt;
  const auto found = std::find(names.begin(), names.end(), *text);
  if (found == names.end()) return std::nullopt;
  return static_cast<int>(found - names.begin());
}

std::optional<double> numberOf(const RangeArgument& argument) {
  if (const double* const number = std::get_if<double>(&argument))
    return std::isfinite(*number) ? std::optional(*number) : std::nullopt;
  const std::string& text = *textOf(argument);
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return number;
}

// Takes "GMT" off the end of the arguments and breaks the time down accordingly.
std::tm nowFor(PacEnvironment& environment, Arguments& arguments) {
  const std::string* const last = arguments.empty() ? nullptr : textOf(arguments.back());
  const bool gmt = last != nullptr && *last == "GMT";
  if (gmt) arguments = arguments.first(arguments.size() - 1);
  return environment.brokenDown(environment.now(), gmt);
}

// `value` within first to last, round the end where first is after last.
template <typename Value>
bool within(Value first, Value value, Value last) {
  return first <= last ? first <= value && value <= last : first <= value || value <= last;
}

struct DatePart {
  enum class Kind : std::uint8_t { kDay, kMonth, kYear } kind;
  int value;  ///< month from 0
};

std::optional<DatePart> datePart(const RangeArgument& argument) {
  if (const std::optional<int> month = indexOf(kMonths, argument))
    return DatePart{DatePart::Kind::kMonth, *month};
  const std::optional<double> number = numberOf(argument);
  if (!number) return std::nullopt;
  const double whole = std::trunc(*number);
  if (whole >= 1 && whole <= 31) return DatePart{DatePart::Kind::kDay, static_cast<int>(whole)};
  if (whole >= 1000 && whole <= 9999)
    return DatePart{DatePart::Kind::kYear, static_cast<int>(whole)};
  return std::nullopt;
}

struct Date {
  int year, month, day;

  void set(DatePart part) {
    (part.kind == DatePart::Kind::kDay     ? day
     : part.kind == DatePart::Kind::kMonth ? month
                                           : year) = part.value;
  }
  // Days since the epoch; a day past the end of its month counts on into the next.
  [[nodiscard]] std::chrono::sys_days number() const {
    const std::chrono::year_month_day first{std::chrono::year(year),
                                            std::chrono::month(static_cast<unsigned>(month) + 1),
                                            std::chrono::day(1)};
    return std::chrono::sys_days(first) + std::chrono::days(day - 1);
  }
  [[nodiscard]] int lastDayOfMonth() const {
    const std::chrono::year_month_day_last last{
        std::chrono::year(year),
        std::chrono::month_day_last(std::chrono::month(static_cast<unsigned>(month) + 1))};
    return static_cast<int>(static_cast<unsigned>(last.day()));
  }
};

bool isDay(DatePart part) {
  return part.kind == DatePart::Kind::kDay;
}

bool holdsAlone(DatePart part, const Date& today) {
  Date other = today;
  other.set(part);
  return other.year == today.year && other.month == today.month && other.day == today.day;
}

bool holdsInMonth(DatePart first, DatePart second, const Date& today) {
  return isDay(second) ? within(first.value, today.day, second.value) : today.day >= first.value;
}

bool holdsInRange(std::span<const DatePart> parts, const Date& today) {
  Date first{today.year, 0, 1};
  Date last{today.year, 11, 31};
  const std::span<const DatePart> end = parts.subspan(parts.size() / 2);
  for (const DatePart part : parts.first(parts.size() / 2)) first.set(part);
  for (const DatePart part : end) last.set(part);
  const bool anyDay = std::any_of(parts.begin(), parts.end(), isDay);
  if (anyDay && std::none_of(end.begin(), end.end(), isDay)) last.day = last.lastDayOfMonth();
  return within(first.number(), today.number(), last.number());
}

}  // namespace

bool weekdayRange(PacEnvironment& environment, Arguments arguments) {
  const std::tm now = nowFor(environment, arguments);
  if (arguments.empty()) return false;
  const std::optional<int> first = indexOf(kWeekdays, arguments[0]);
  const std::optional<int> last = arguments.size() > 1 ? indexOf(kWeekdays, arguments[1]) : first;
  return first && last && within(*first, now.tm_wday, *last);
}

bool dateRange(PacEnvironment& environment, Arguments arguments) {
  constexpr std::size_t kMostParts = 6;
  if (arguments.empty()) return false;
  const std::tm now = nowFor(environment, arguments);
  const Date today{now.tm_year + 1900, now.tm_mon, now.tm_mday};
  if (arguments.size() > kMostParts) return false;
  std::array<DatePart, kMostParts> parts;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::optional<DatePart> part = datePart(arguments[i]);
    if (!part) return false;
    parts[i] = *part;
  }
  const std::span<const DatePart> said(parts.data(), arguments.size());
  if (said.size() == 1) return holdsAlone(said[0], today);
  if (said.size() == 2 && isDay(said[0])) return holdsInMonth(said[0], said[1], today);
  return holdsInRange(said, today);
}

TimeRange timeRange(PacEnvironment& environment, Arguments arguments) {
  const std::tm now = nowFor(environment, arguments);
  const std::size_t count = arguments.size();
  if (count == 0) return TimeRange::kOutside;
  if (count != 1 && count != 2 && count != 4 && count != 6) return TimeRange::kBadCount;
  std::array<double, 6> numbers{};
  for (std::size_t i = 0; i < count; ++i) {
    const std::optional<double> number = numberOf(arguments[i]);
    if (!number) return TimeRange::kOutside;
    numbers[i] = std::trunc(*number);
  }
  const auto answer = [](bool inside) { return inside ? TimeRange::kInside : TimeRange::kOutside; };
  const double hour = now.tm_hour;
  if (count == 1) return answer(hour == numbers[0]);
  if (count == 2) return answer(numbers[0] <= hour && hour <= numbers[1]);
  const double second = (hour * 60 + now.tm_min) * 60 + now.tm_sec;
  const auto secondOf = [&](std::size_t at, double filled) {
    return (numbers[at] * 60 + numbers[at + 1]) * 60 + (count == 6 ? numbers[at + 2] : filled);
  };
  return answer(within(secondOf(0, 0), second, secondOf(count / 2, 59)));
}

}  // namespace pac_worker
