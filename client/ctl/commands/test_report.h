// The output of `pac test`, for people and for continuous integration. Pure functions.
#pragma once

#include <chrono>
#include <span>
#include <string>
#include <vector>

#include "client/ctl/commands/test_cases.h"

namespace client {

/// One case, and the script's answer for it.
struct TestOutcome {
  TestCase given;
  std::string answer;  ///< in the form of comparableAnswer(), or kExpectsError
  std::string error;   ///< why there is no answer; else empty
  std::chrono::microseconds took{0};

  bool isPassed() const { return answer == given.expected; }
  /// The answer; if there is none, kExpectsError and the reason.
  std::string shownAnswer() const { return error.empty() ? answer : answer + " " + error; }
};

/// The names of the two files for the report, as given.
struct TestedFiles {
  std::string script;
  std::string cases;
};

/// The Test Anything Protocol, version 14: a line for each case. After the line of a failed case, a
/// block shows the expected and the actual answer.
std::string tapReport(std::span<const TestOutcome> outcomes, const TestedFiles& files);

/// The TAP output for a script that does not load.
std::string tapBailOut(const std::string& reason);

/// JUnit's XML in the form that continuous integration reads: one test suite with a test case for
/// each case.
std::string junitReport(std::span<const TestOutcome> outcomes, const TestedFiles& files);

/// JUnit's XML for a script that does not load: one test case, with an error.
std::string junitRefusal(const std::string& reason, const TestedFiles& files);

}  // namespace client
