// A helper for time limits in tests, for machines that may be slow at any moment.
#pragma once

#include <algorithm>
#include <chrono>

/// Runs `step` until it takes less than `limit`, at most five times. Right code is fast enough in
/// one of five runs, even on a busy machine. @return the shortest time
template <typename Step>
std::chrono::steady_clock::duration shortest(std::chrono::steady_clock::duration limit,
                                             Step&& step) {
  auto best = std::chrono::steady_clock::duration::max();
  for (int i = 0; i < 5 && best >= limit; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    step();
    best = std::min(best, std::chrono::steady_clock::now() - begin);
  }
  return best;
}
