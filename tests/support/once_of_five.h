// Helpers for steps with a time limit, for machines that may stop at any moment.
#pragma once

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <iostream>

/// Runs `step`, which contains expectations, until it ends without a failure, at most five times.
/// Right code is fast enough in one of five runs, even on a busy machine; wrong code fails each
/// time. Failures of the first four runs are only printed. A failure of the fifth run fails the
/// test.
///
/// ASSERT in `step` returns from `step`. Each run starts from the beginning, so `step` itself must
/// set up everything that it changes. It must not skip the test, and it must end the threads that
/// it starts.
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
