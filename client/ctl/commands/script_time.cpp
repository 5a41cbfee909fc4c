#include "client/ctl/commands/script_time.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace client {

namespace {

namespace chrono = std::chrono;

// The full path is used, because the worker must read the same file but does not get the caller's
// TZDIR.
constexpr const char* kZoneFolder = "/usr/share/zoneinfo/";
constexpr const char* kDeviceZone = ":/etc/localtime";
constexpr std::string_view kZoneMagic = "TZif";  // first bytes of a zone file, RFC 8536

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

class Reader {
 public:
  explicit Reader(std::string_view text) : mRest(text) {}

  bool atEnd() const { return mRest.empty(); }

  /// Removes the next character if `wanted` contains it. @return the character; else NUL
  char take(std::string_view wanted) {
    if (mRest.empty() || wanted.find(mRest.front()) == std::string_view::npos) return '\0';
    const char taken = mRest.front();
    mRest.remove_prefix(1);
    return taken;
  }

  /// Moves exactly `count` digits to `value`. @return false if there are fewer digits, or if the
  /// number is above `most`
  bool number(std::size_t count, int most, int& value) {
    const auto digits = mRest.substr(0, count);
    if (digits.size() != count || !std::all_of(digits.begin(), digits.end(), isDigit)) return false;
    std::from_chars(digits.data(), digits.data() + count, value);
    mRest.remove_prefix(count);
    return value <= most;
  }

  void skipDigits() {
    while (!mRest.empty() && isDigit(mRest.front())) mRest.remove_prefix(1);
  }

  bool digitFollows() const { return !mRest.empty() && isDigit(mRest.front()); }

 private:
  std::string_view mRest;
};

bool readDay(Reader& reader, bool& extended, chrono::year_month_day& day) {
  int year = 0;
  int month = 0;
  int dayOfMonth = 0;
  if (!reader.number(4, 9999, year)) return false;
  extended = reader.take("-") != '\0';
  if (!reader.number(2, 12, month)) return false;
  if (extended && reader.take("-") == '\0') return false;
  if (!reader.number(2, 31, dayOfMonth)) return false;
  day = chrono::year_month_day(chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                               chrono::day(static_cast<unsigned>(dayOfMonth)));
  return day.ok();
}

bool readTimeOfDay(Reader& reader, bool extended, chrono::seconds& time) {
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!reader.number(2, 23, hour)) return false;
  if (extended && reader.take(":") == '\0') return false;
  if (!reader.number(2, 59, minute)) return false;
  if (extended ? reader.take(":") != '\0' : reader.digitFollows()) {
    if (!reader.number(2, 59, second)) return false;
    if (reader.take(".,") != '\0') {
      if (!reader.digitFollows()) return false;
      reader.skipDigits();
    }
  }
  time = chrono::hours(hour) + chrono::minutes(minute) + chrono::seconds(second);
  return true;
}

bool readOffset(Reader& reader, chrono::seconds& offset) {
  if (reader.take("Zz") != '\0') return true;
  const char sign = reader.take("+-");
  int hours = 0;
  int minutes = 0;
  if (sign == '\0' || !reader.number(2, 23, hours)) return false;
  const bool colon = reader.take(":") != '\0';
  if ((colon || !reader.atEnd()) && !reader.number(2, 59, minutes)) return false;
  offset = chrono::hours(hours) + chrono::minutes(minutes);
  if (sign == '-') offset = -offset;
  return true;
}

/// Whether `name` stays inside the zone folder and cannot be a TZ rule of the C library.
bool isZoneName(const std::string& name) {
  const auto mayStand = [](char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string_view("/_+-").find(c) != std::string_view::npos;
  };
  return !name.empty() && name.front() != '/' && std::all_of(name.begin(), name.end(), mayStand);
}

std::tm fieldsOf(const WrittenTime& time, int isSummer) {
  const chrono::hh_mm_ss<chrono::seconds> clock(time.timeOfDay);
  std::tm fields{};
  fields.tm_year = static_cast<int>(time.day.year()) - 1900;
  fields.tm_mon = static_cast<int>(static_cast<unsigned>(time.day.month())) - 1;
  fields.tm_mday = static_cast<int>(static_cast<unsigned>(time.day.day()));
  fields.tm_hour = static_cast<int>(clock.hours().count());
  fields.tm_min = static_cast<int>(clock.minutes().count());
  fields.tm_sec = static_cast<int>(clock.seconds().count());
  fields.tm_isdst = isSummer;
  return fields;
}

bool sameClock(const std::tm& a, const std::tm& b) {
  return a.tm_mday == b.tm_mday && a.tm_hour == b.tm_hour && a.tm_min == b.tm_min &&
         a.tm_sec == b.tm_sec;
}

}  // namespace

std::optional<WrittenTime> parseTime(std::string_view text) {
  Reader reader(text);
  WrittenTime time;
  bool extended = false;
  if (!readDay(reader, extended, time.day)) return std::nullopt;
  if (reader.atEnd()) return time;
  if (reader.take("Tt ") == '\0') return std::nullopt;
  if (!readTimeOfDay(reader, extended, time.timeOfDay)) return std::nullopt;
  if (reader.atEnd()) return time;
  chrono::seconds offset{0};
  if (!readOffset(reader, offset) || !reader.atEnd()) return std::nullopt;
  time.offset = offset;
  return time;
}

std::optional<std::string> zoneVariable(const std::optional<std::string>& name) {
  if (!name) return kDeviceZone;
  if (!isZoneName(*name)) return std::nullopt;
  const auto path = kZoneFolder + *name;
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  std::string magic(kZoneMagic.size(), '\0');
  file.read(magic.data(), static_cast<std::streamsize>(magic.size()));
  if (!file || magic != kZoneMagic) return std::nullopt;
  return ":" + path;
}

std::optional<std::int64_t> instantOf(const WrittenTime& time, const std::string& variable) {
  if (time.offset) {
    const auto local = chrono::sys_days(time.day) + time.timeOfDay;
    return (local - *time.offset).time_since_epoch().count();
  }
  setenv("TZ", variable.c_str(), 1);
  tzset();
  // Tries summer time first: when clocks are turned back, the first of the two hours is in summer
  // time. If the guess is wrong, mktime() returns a different hour.
  for (const int isSummer : {1, 0}) {
    const std::tm wanted = fieldsOf(time, isSummer);
    std::tm found = wanted;
    const std::time_t instant = mktime(&found);
    if (sameClock(found, wanted)) return instant;
  }
  return std::nullopt;
}

}  // namespace client
