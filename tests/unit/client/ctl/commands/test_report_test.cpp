#include "client/ctl/commands/test_report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace client {
namespace {

TestOutcome outcome(std::size_t line, const std::string& url, const std::string& expected,
                    const std::string& answer, const std::string& error = "") {
  TestOutcome made;
  made.given.line = line;
  made.given.url = url;
  made.given.expected = expected;
  made.answer = answer;
  made.error = error;
  made.took = std::chrono::microseconds(1500);
  return made;
}

const TestedFiles kFiles{"a.pac", "a.cases"};

TEST(TapReport, HasAPlanALineForEachCaseAndABlockForAFailure) {
  EXPECT_EQ(tapReport(std::vector{outcome(2, "http://a/#b", "DIRECT", "DIRECT"),
                                  outcome(4, "http://u:p@b/", "DIRECT", "PROXY \"p\":1")},
                      kFiles),
            "TAP version 14\n"
            "1..2\n"
            "ok 1 - a.cases:2 http://a/\\#b\n"
            "not ok 2 - a.cases:4 http://u:***@b/\n"
            "  ---\n"
            "  expected: \"DIRECT\"\n"
            "  actual: \"PROXY \\\"p\\\":1\"\n"
            "  line: 4\n"
            "  ...\n");
}

TEST(TapReport, KeepsItsLinesWhateverTheScriptReturns) {
  const auto report =
      tapReport(std::vector{outcome(1, "http://a/\x1b[2J", "DIRECT", "not\nok\n1")}, kFiles);
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 8);
  EXPECT_EQ(report.find('\x1b'), std::string::npos);
}

TEST(TapReport, BailsOutInOneLine) {
  EXPECT_EQ(tapBailOut("a.pac: line 3: SyntaxError\n#"),
            "TAP version 14\nBail out! a.pac: line 3: SyntaxError\\\\x0a\\#\n");
}

TEST(JunitReport, CountsCasesAndFailures) {
  EXPECT_EQ(junitReport(std::vector{outcome(2, "http://a/?b&c", "DIRECT", "DIRECT"),
                                    outcome(4, "http://b/", "(error)", "PROXY <p>:1"),
                                    outcome(5, "http://c/", "DIRECT", "(error)", "line 1: x")},
                        kFiles),
            R"xml(<?xml version="1.0" encoding="UTF-8"?>
<testsuites tests="3" failures="2" errors="0" time="0.004500">
  <testsuite name="a.cases" tests="3" failures="2" errors="0" time="0.004500">
    <testcase name="http://a/?b&amp;c -&gt; DIRECT" classname="a.pac" file="a.cases" line="2" time="0.001500"/>
    <testcase name="http://b/ -&gt; (error)" classname="a.pac" file="a.cases" line="4" time="0.001500">
      <failure type="answer" message="the answer is PROXY &lt;p&gt;:1">a.cases:4: expected (error), got PROXY &lt;p&gt;:1</failure>
    </testcase>
    <testcase name="http://c/ -&gt; DIRECT" classname="a.pac" file="a.cases" line="5" time="0.001500">
      <failure type="answer" message="the answer is (error) line 1: x">a.cases:5: expected DIRECT, got (error) line 1: x</failure>
    </testcase>
  </testsuite>
</testsuites>
)xml");
}

TEST(JunitReport, ReplacesCharactersThatXmlCannotHold) {
  const auto report = junitRefusal("\uFFFE \uFFFF \uFFFD \uFFFC", kFiles);
  EXPECT_NE(report.find("message=\"\uFFFD \uFFFD \uFFFD \uFFFC\""), std::string::npos) << report;
}

TEST(JunitReport, HasAnErrorForAScriptThatDoesNotLoad) {
  const auto report = junitRefusal("a.pac: line 3: \"x\"", kFiles);
  EXPECT_NE(report.find("errors=\"1\""), std::string::npos);
  EXPECT_NE(report.find("message=\"a.pac: line 3: &quot;x&quot;\""), std::string::npos);
}

}  // namespace
}  // namespace client
