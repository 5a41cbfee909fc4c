// What `pac test` prints, for people and for the programs of a continuous integration. Functions of
// their arguments.
#pragma once

#include <chrono>
#include <span>
#include <string>
#include <vector>

#include "client/ctl/commands/test_cases.h"

namespace client {

/// One case and what the script answered.
struct TestOutcome {
  TestCase given;
  std::string answer;  ///< as comparableAnswer() gives it, or kExpectsError
  std::string error;   ///< why there is no answer; else empty
  std::chrono::microseconds took{0};

  bool isPassed() const { return answer == given.expected; }
  /// The answer, with the reason if there is none.
  std::string shownAnswer() const { return error.empty() ? answer : answer + " " + error; }
};

/// What a report is about: the names of the two files as given.
struct TestedFiles {
  std::string script;
  std::string cases;
};

/// The Test Anything Protocol, version 14: a line for each case, with expected and actual answer in
/// a block below those that failed.
std::string tapReport(std::span<const TestOutcome> outcomes, const TestedFiles& files);

/// What TAP has for a script that does not load.
std::string tapBailOut(const std::string& reason);

/// JUnit's XML as continuous integrations read it: one test suite, a test case for each case.
std::string junitReport(std::span<const TestOutcome> outcomes, const TestedFiles& files);

/// JUnit's XML for a script that does not load: one test case, with an error.
std::string junitRefusal(const std::string& reason, const TestedFiles& files);

}  // namespace client
