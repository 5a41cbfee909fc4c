// Tests the date and time helpers, as scripts call them.
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <variant>

#include "tests/unit/engine/worker/engine_fixture.h"

namespace pac_worker {
namespace {

using Argument = std::variant<double, std::string>;

class Dates : public EngineTest {
 protected:
  using List = std::initializer_list<Argument>;

  Dates() { setZone("UTC"); }
  static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  std::string call(const std::string& helper, List list) {
    std::string text = helper + "(";
    for (const Argument& argument : list) {
      if (text.back() != '(') text += ", ";
      if (const double* const number = std::get_if<double>(&argument))
        text += std::to_string(*number);
      else
        text += "'" + std::get<std::string>(argument) + "'";
    }
    if (!mLoaded)
      mLoaded = load("function FindProxyForURL(url, host) { return '' + eval(host) }").empty();
    return ask("", text + ")");
  }
  bool holds(const std::string& helper, List list) {
    const std::string answer = call(helper, list);
    EXPECT_TRUE(answer == "true" || answer == "false") << answer;
    return answer == "true";
  }
  bool weekday(List list) { return holds("weekdayRange", list); }
  bool date(List list) { return holds("dateRange", list); }
  bool time(List list) { return holds("timeRange", list); }
  bool timeThrows(List list) {
    return call("timeRange", list) == "!uncaught exception: timeRange: bad number of arguments";
  }

 private:
  bool mLoaded = false;
};

TEST_F(Dates, WeekdayRangeTakesOneDayOrARange) {
  mWorld.setLocal(2026, 7, 15);  // a Wednesday
  EXPECT_TRUE(weekday({"WED"}));
  EXPECT_FALSE(weekday({"THU"}));
  EXPECT_TRUE(weekday({"MON", "FRI"}));
  EXPECT_TRUE(weekday({"WED", "WED"}));
  EXPECT_TRUE(weekday({"TUE", "WED"}));
  EXPECT_TRUE(weekday({"WED", "SAT"}));
  EXPECT_FALSE(weekday({"THU", "SAT"}));
  EXPECT_FALSE(weekday({"SUN", "TUE"}));
}

TEST_F(Dates, WeekdayRangeRunsRoundTheWeek) {
  for (int day = 12; day <= 18; ++day) {  // Sunday to Saturday
    mWorld.setLocal(2026, 7, day);
    EXPECT_EQ(weekday({"FRI", "MON"}), day <= 13 || day >= 17) << day;
    EXPECT_TRUE(weekday({"SUN", "SAT"}));
    EXPECT_TRUE(weekday({"WED", "TUE"}));
  }
}

TEST_F(Dates, WeekdayRangeOfThreeDaysLooksAtTheFirst) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_TRUE(weekday({"WED", "THU", "FRI"}));
  EXPECT_FALSE(weekday({"TUE", "THU", "FRI"}));
}

TEST_F(Dates, WeekdayRangeKnowsUpperCaseNamesOnly) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_FALSE(weekday({"wed"}));
  EXPECT_FALSE(weekday({"Wed"}));
  EXPECT_FALSE(weekday({"MON", "fri"}));
  EXPECT_FALSE(weekday({3.0}));
  EXPECT_FALSE(weekday({}));
  EXPECT_FALSE(weekday({"GMT"}));
}

TEST_F(Dates, GmtLooksAtUtc) {
  setZone("Pacific/Port_Moresby");  // ten hours before Greenwich
  mWorld.setLocal(2026, 1, 1, 5);   // in Greenwich it is Wednesday, 31 December 2025, 19:00
  EXPECT_TRUE(weekday({"THU"}));
  EXPECT_TRUE(weekday({"WED", "GMT"}));
  EXPECT_FALSE(weekday({"THU", "FRI", "GMT"}));
  EXPECT_TRUE(date({1.0, "JAN", 2026.0, 1.0, "JAN", 2026.0}));
  // The helper first sets the year: at that moment the date is 30 November 2025, so the day becomes
  // 30.
  EXPECT_FALSE(date({31.0, "DEC", 2025.0, 31.0, "DEC", 2025.0, "GMT"}));
  EXPECT_TRUE(date({30.0, "DEC", 2025.0, 30.0, "DEC", 2025.0, "GMT"}));
  EXPECT_TRUE(date({2025.0, "GMT"}));
  EXPECT_TRUE(date({"DEC", "GMT"}));
  EXPECT_TRUE(date({31.0, "GMT"}));
  EXPECT_TRUE(time({5.0}));
  EXPECT_TRUE(time({19.0, "GMT"}));
  EXPECT_FALSE(time({5.0, "GMT"}));
}

TEST_F(Dates, DateRangeOfOnePart) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_TRUE(date({15.0}));
  EXPECT_FALSE(date({16.0}));
  EXPECT_TRUE(date({"JUL"}));
  EXPECT_FALSE(date({"AUG"}));
  EXPECT_TRUE(date({2026.0}));
  EXPECT_FALSE(date({2025.0}));
  EXPECT_TRUE(date({"15"})) << "digits count as their number";
}

TEST_F(Dates, DateRangeOfDaysIsWithinTheMonthAndWraps) {
  for (int day = 1; day <= 30; ++day) {
    mWorld.setLocal(2026, 6, day);
    EXPECT_EQ(date({10.0, 20.0}), day >= 10 && day <= 20) << day;
    EXPECT_EQ(date({25.0, 5.0}), day >= 25 || day <= 5) << day;
    EXPECT_EQ(date({25.0, 31.0}), day >= 25) << day;
    EXPECT_FALSE(date({31.0, 31.0})) << day;
  }
}

TEST_F(Dates, DateRangeOfMonthsKeepsDay31) {
  const auto at = [this](int month, int day) {
    mWorld.setLocal(2026, month, day);
    return date({"APR", "JUN"});
  };
  EXPECT_FALSE(at(3, 31));
  EXPECT_TRUE(at(4, 1));
  EXPECT_TRUE(at(6, 30));
  EXPECT_TRUE(at(7, 1)) << "31 June";
  EXPECT_FALSE(at(7, 2));
  mWorld.setLocal(2026, 3, 3);
  EXPECT_TRUE(date({"JAN", "FEB"})) << "31 February";
  mWorld.setLocal(2026, 3, 4);
  EXPECT_FALSE(date({"JAN", "FEB"}));
  mWorld.setLocal(2028, 3, 2);
  EXPECT_TRUE(date({"JAN", "FEB"}));
  mWorld.setLocal(2028, 3, 3);
  EXPECT_FALSE(date({"JAN", "FEB"})) << "a leap year";
}

TEST_F(Dates, DateRangeOfMonthsWraps) {
  for (int month = 1; month <= 12; ++month) {
    mWorld.setLocal(2026, month, 15);
    EXPECT_EQ(date({"NOV", "JAN"}), month >= 11 || month == 1) << month;
    EXPECT_EQ(date({"JAN", "DEC"}), true) << month;
  }
}

TEST_F(Dates, DateRangeOfYears) {
  mWorld.setLocal(2026, 12, 31);
  EXPECT_TRUE(date({2025.0, 2026.0}));
  EXPECT_TRUE(date({2026.0, 2027.0}));
  EXPECT_FALSE(date({2027.0, 2028.0}));
  EXPECT_FALSE(date({2024.0, 2025.0}));
}

TEST_F(Dates, DayAndMonthRunToTheEndOfTheCurrentMonth) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_TRUE(date({15.0, "JAN"}));
  EXPECT_TRUE(date({1.0, "DEC"}));
  EXPECT_FALSE(date({16.0, "JUL"}));
  mWorld.setLocal(2026, 7, 31);
  EXPECT_TRUE(date({16.0, "JUL"}));
  mWorld.setLocal(2026, 2, 28);
  EXPECT_FALSE(date({31.0, "FEB"}));
}

TEST_F(Dates, DayMonthAndYearRunFromJanuaryToDay31OfThatMonth) {
  const auto at = [this](int month, int day) {
    mWorld.setLocal(2026, month, day);
    return date({10.0, "JUN", 2026.0});
  };
  EXPECT_FALSE(at(1, 9));
  EXPECT_TRUE(at(1, 10));
  EXPECT_TRUE(at(6, 30));
  EXPECT_TRUE(at(7, 1)) << "31 June";
  EXPECT_FALSE(at(7, 2));
}

TEST_F(Dates, DateRangeOfTwoDates) {
  const auto at = [this](int year, int month, int day, List list) {
    mWorld.setLocal(year, month, day);
    return date(list);
  };
  EXPECT_TRUE(at(2026, 6, 1, {1.0, "JUN", 15.0, "AUG"}));
  EXPECT_TRUE(at(2026, 8, 15, {1.0, "JUN", 15.0, "AUG"}));
  EXPECT_FALSE(at(2026, 5, 31, {1.0, "JUN", 15.0, "AUG"}));
  EXPECT_FALSE(at(2026, 8, 16, {1.0, "JUN", 15.0, "AUG"}));
  EXPECT_TRUE(at(2026, 12, 24, {20.0, "DEC", 6.0, "JAN"}));
  EXPECT_TRUE(at(2026, 1, 6, {20.0, "DEC", 6.0, "JAN"}));
  EXPECT_FALSE(at(2026, 1, 7, {20.0, "DEC", 6.0, "JAN"}));
  EXPECT_TRUE(at(2026, 3, 31, {"OCT", 2025.0, "MAR", 2026.0}));
  EXPECT_TRUE(at(2025, 10, 1, {"OCT", 2025.0, "MAR", 2026.0}));
  EXPECT_FALSE(at(2025, 9, 30, {"OCT", 2025.0, "MAR", 2026.0}));
  EXPECT_FALSE(at(2026, 4, 1, {"OCT", 2025.0, "MAR", 2026.0}));
  EXPECT_TRUE(at(2026, 8, 15, {1.0, "JUN", 2025.0, 15.0, "AUG", 2026.0}));
  EXPECT_FALSE(at(2026, 8, 16, {1.0, "JUN", 2025.0, 15.0, "AUG", 2026.0}));
  EXPECT_TRUE(at(2028, 2, 29, {29.0, "FEB", 2028.0, 29.0, "FEB", 2028.0}));
  EXPECT_TRUE(at(2026, 6, 30, {1.0, "JUN", 2026.0, 30.0, "JUN", 2026.0}));
  EXPECT_FALSE(at(2026, 7, 1, {1.0, "JUN", 2026.0, 30.0, "JUN", 2026.0}));
}

TEST_F(Dates, DateRangeOfNothingOrNonsense) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_TRUE(date({"GMT"}));
  EXPECT_FALSE(date({}));
  EXPECT_FALSE(date({"jul"}));
  EXPECT_FALSE(date({0.0}));
  EXPECT_FALSE(date({999.0}));
  EXPECT_TRUE(date({1.0, "JAN", 2026.0, 31.0, "DEC", 2026.0, 1.0})) << "the seventh is the end's";
}

// In the hours around a change of summer time, the zone's offset at a local time differs from its
// offset at the same time in UTC.
TEST_F(Dates, BoundsHoldAroundAChangeOfSummerTime) {
  setZone("America/Los_Angeles");  // forward on 8 March 2026 at 2:00, back on 1 November at 2:00
  const auto at = [this](int month, int day, int hour, int minute, List list) {
    mWorld.setLocal(2026, month, day, hour, minute);
    return time(list);
  };
  EXPECT_TRUE(at(3, 8, 9, 0, {9.0, 0.0, 17.0, 0.0}));
  EXPECT_FALSE(at(3, 8, 8, 59, {9.0, 0.0, 17.0, 0.0}));
  EXPECT_FALSE(at(3, 8, 3, 29, {2.0, 30.0, 3.0, 30.0})) << "2:30 is skipped: it counts as 3:30";
  EXPECT_TRUE(at(3, 8, 3, 30, {2.0, 30.0, 3.0, 30.0}));
  EXPECT_TRUE(at(11, 1, 0, 30, {0.0, 30.0, 0.0, 30.0}));
  EXPECT_FALSE(at(11, 1, 0, 29, {0.0, 30.0, 0.0, 30.0}));
  mWorld.setLocal(2026, 3, 8, 0, 0);
  EXPECT_TRUE(date({8.0, "MAR", 8.0, "MAR"}));
}

// With "GMT" and minutes, the bounds are times in GMT on the current day of the device's zone.
TEST_F(Dates, TimesOfGmtHoldOnlyIfTheDayIsTheSame) {
  setZone("Pacific/Kiritimati");  // 14 hours before Greenwich
  mWorld.setLocal(2026, 3, 31, 5);
  EXPECT_TRUE(time({15.0, "GMT"}));
  EXPECT_FALSE(time({15.0, 0.0, 16.0, 0.0, "GMT"})) << "there it is 30 March";
  mWorld.setLocal(2026, 3, 31, 15);
  EXPECT_TRUE(time({1.0, 0.0, 2.0, 0.0, "GMT"}));
}

TEST_F(Dates, TimeRangeOfHoursIncludesTheLastHourAndDoesNotWrap) {
  for (int hour = 0; hour < 24; ++hour) {
    mWorld.setLocal(2026, 7, 15, hour, 59, 59);
    EXPECT_EQ(time({12.0}), hour == 12) << hour;
    EXPECT_EQ(time({9.0, 17.0}), hour >= 9 && hour <= 17) << hour;
    EXPECT_FALSE(time({22.0, 6.0})) << hour;
  }
}

TEST_F(Dates, TimeRangeOfMinutesIncludesTheLastMinuteAndWraps) {
  const auto at = [this](int hour, int minute, int second, List list) {
    mWorld.setLocal(2026, 7, 15, hour, minute, second);
    return time(list);
  };
  EXPECT_FALSE(at(8, 29, 59, {8.0, 30.0, 17.0, 0.0}));
  EXPECT_TRUE(at(8, 30, 0, {8.0, 30.0, 17.0, 0.0}));
  EXPECT_TRUE(at(17, 0, 59, {8.0, 30.0, 17.0, 0.0}));
  EXPECT_FALSE(at(17, 1, 0, {8.0, 30.0, 17.0, 0.0}));
  EXPECT_TRUE(at(23, 30, 0, {22.0, 0.0, 6.0, 0.0}));
  EXPECT_TRUE(at(5, 59, 59, {22.0, 0.0, 6.0, 0.0}));
  EXPECT_FALSE(at(12, 0, 0, {22.0, 0.0, 6.0, 0.0}));
}

TEST_F(Dates, TimeRangeOfSecondsIsExactAndWraps) {
  const auto at = [this](int hour, int minute, int second, List list) {
    mWorld.setLocal(2026, 7, 15, hour, minute, second);
    return time(list);
  };
  EXPECT_FALSE(at(0, 0, 0, {0.0, 0.0, 1.0, 0.0, 0.0, 30.0}));
  EXPECT_TRUE(at(0, 0, 1, {0.0, 0.0, 1.0, 0.0, 0.0, 30.0}));
  EXPECT_TRUE(at(0, 0, 30, {0.0, 0.0, 1.0, 0.0, 0.0, 30.0}));
  EXPECT_FALSE(at(0, 0, 31, {0.0, 0.0, 1.0, 0.0, 0.0, 30.0}));
  EXPECT_TRUE(at(23, 59, 59, {23.0, 59.0, 59.0, 0.0, 0.0, 0.0}));
  EXPECT_TRUE(at(0, 0, 0, {23.0, 59.0, 59.0, 0.0, 0.0, 0.0}));
  EXPECT_FALSE(at(0, 0, 1, {23.0, 59.0, 59.0, 0.0, 0.0, 0.0}));
}

TEST_F(Dates, TimeRangeThrowsForOtherCounts) {
  mWorld.setLocal(2026, 7, 15);
  EXPECT_TRUE(timeThrows({1.0, 2.0, 3.0}));
  EXPECT_TRUE(timeThrows({1.0, 2.0, 3.0, 4.0, 5.0}));
  EXPECT_TRUE(timeThrows({1.0, 2.0, 3.0, "GMT"}));
  EXPECT_TRUE(timeThrows({1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0}));
  EXPECT_TRUE(timeThrows({"GMT"}));
  EXPECT_FALSE(timeThrows({}));
  EXPECT_FALSE(time({}));
  EXPECT_FALSE(time({"noon"}));
  EXPECT_FALSE(time({0.0, "x"}));
  EXPECT_TRUE(time({"12"}));
}

}  // namespace
}  // namespace pac_worker
