#include "tests/support/once_of_five.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(OnceOfFive, IsOnceWhereNothingFails) {
  int times = 0;
  onceOfFive([&] { ++times; });
  EXPECT_EQ(times, 1);
}

TEST(OnceOfFive, EndsWithTheFirstTimeThatDoesNotFail) {
  int times = 0;
  onceOfFive([&] { EXPECT_EQ(++times, 2); });
  EXPECT_EQ(times, 2);
}

TEST(OnceOfFive, ForgivesFourTimes) {
  int times = 0;
  onceOfFive([&] { EXPECT_EQ(++times, 5); });
  EXPECT_EQ(times, 5);
}

TEST(OnceOfFive, FailsWithTheFailuresOfTheFifthTimeAlone) {
  int times = 0;
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
      onceOfFive([&] { ADD_FAILURE() << "time " << ++times << " of all"; }), "time 5 of all");
  EXPECT_EQ(times, 5);
}

TEST(OnceOfFive, GoesOnBehindAFatalFailure) {
  int times = 0;
  int whole = 0;
  onceOfFive([&] {
    ASSERT_EQ(++times, 3);
    ++whole;
  });
  EXPECT_EQ(times, 3);
  EXPECT_EQ(whole, 1) << "a fatal failure ends the time it is in";
}

TEST(OnceOfFive, SeesTheFailuresOfOtherThreads) {
  int times = 0;
  onceOfFive([&] {
    ++times;
    std::thread([&] { EXPECT_EQ(times, 2); }).join();
  });
  EXPECT_EQ(times, 2);
}

}  // namespace
