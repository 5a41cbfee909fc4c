// Helpers for steps that need a time limit, on a machine that may stop at any moment.
#pragma once

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <iostream>

/// Runs `step`, which holds expectations, until it ends without a failure, five times at most: what
/// can be done in time is done in time once, and a busy machine is seldom busy five times. Wrong
/// code fails each time. Failures of the first four are printed and forgotten, those of the fifth
/// are the test's.
///
/// ASSERT in `step` returns from `step`. Whatever `step` changes it sets up itself, for each time
/// begins again. It must not skip the test, and threads it starts must end with it.
template <typename Step>
void onceOfFive(Step&& step) {
  constexpr int kForgiven = 4;
  for (int i = 0; i < kForgiven; ++i) {
    testing::TestPartResultArray results;
    {
      using Reporter = testing::ScopedFakeTestPartResultReporter;
      const Reporter reporter(Reporter::INTERCEPT_ALL_THREADS, &results);
      step();
    }
    bool failed = false;
    for (int k = 0; k < results.size(); ++k) {
      const auto& result = results.GetTestPartResult(k);
      if (!result.failed()) continue;
      failed = true;
      std::cout << "once of five: " << result;
    }
    if (!failed) return;
  }
  step();
}
