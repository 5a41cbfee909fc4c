// A time limit that also ends a script that the engine cannot stop.
#pragma once

#include <sys/time.h>

#include <chrono>
#include <ctime>

namespace pac_worker {

/// Ends the process if a load or an evaluation continues after the library has ended. Some scripts
/// never reach a point at which the engine reads the clock. Normally the library kills the worker
/// of such a script. The library cannot do this if its own process has ended.
class EvaluationAlarm {
 public:
  explicit EvaluationAlarm(std::chrono::milliseconds limit) { arm(limit + kAfterTheLibrary); }
  ~EvaluationAlarm() { arm(std::chrono::milliseconds(0)); }
  EvaluationAlarm(const EvaluationAlarm&) = delete;
  EvaluationAlarm& operator=(const EvaluationAlarm&) = delete;

 private:
  static constexpr std::chrono::milliseconds kAfterTheLibrary{1000};

  // The default action of SIGALRM ends the process.
  static void arm(std::chrono::milliseconds after) {
    const auto count = after.count();
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(count / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(count % 1000 * 1000);
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

}  // namespace pac_worker
