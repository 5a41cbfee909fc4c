#include "client/ctl/commands/test_cases.h"

#include <gtest/gtest.h>

#include <string>

#include "client/ctl/failure.h"

namespace client {
namespace {

std::vector<TestCase> parsed(const std::string& text, const SimulatedEnvironment& base = {}) {
  return parseTestCases(text, "cases", base);
}

std::string refusalOf(const std::string& text) {
  try {
    parsed(text);
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), kBadData);
    return failure.what();
  }
  return "taken";
}

TEST(TestCases, AreAUrlAndAnAnswer) {
  const auto cases = parsed("# cases\n\nhttp://a/  ->  PROXY p:1;DIRECT \r\n  http://b/ -> DIRECT");
  ASSERT_EQ(cases.size(), 2U);
  EXPECT_EQ(cases[0].line, 3U);
  EXPECT_EQ(cases[0].url, "http://a/");
  EXPECT_EQ(cases[0].expected, "PROXY p:1; DIRECT");
  EXPECT_EQ(cases[1].line, 4U);
  EXPECT_EQ(cases[1].url, "http://b/");
}

TEST(TestCases, TakeTheOptionsOfTheirLine) {
  const auto cases = parsed(
      "http://a/ --host h --at 2026-03-02 --tz=UTC --my-ip 10.0.0.1 --resolve a=1.2.3.4 "
      "--resolve b=::1 -> DIRECT");
  ASSERT_EQ(cases.size(), 1U);
  const auto& world = cases[0].environment;
  EXPECT_EQ(cases[0].host, "h");
  EXPECT_EQ(world.time, "2026-03-02");
  EXPECT_EQ(world.zone, "UTC");
  EXPECT_EQ(world.ownAddresses, "10.0.0.1");
  EXPECT_EQ(world.names, (std::vector<std::string>{"a=1.2.3.4", "b=::1"}));
}

TEST(TestCases, SeeNothingOfTheNetwork) {
  const auto cases = parsed("http://a/ -> DIRECT\nhttp://a/ --resolve a=1.2.3.4 -> DIRECT");
  EXPECT_TRUE(cases[0].environment.offline);
  EXPECT_EQ(cases[0].environment.ownAddresses, "127.0.0.1");
  EXPECT_FALSE(cases[1].environment.offline);  // the case uses only its own names
  EXPECT_EQ(cases[1].environment.ownAddresses, "127.0.0.1");
}

TEST(TestCases, AreRefinedByTheLineOfOptionsAboveThem) {
  SimulatedEnvironment base;
  base.zone = "UTC";
  base.names = {"a=1.1.1.1", "B=2.2.2.2"};
  const auto cases = parsed(
      "http://a/ -> DIRECT\n--tz Europe/Berlin --host h --resolve b=3.3.3.3\nhttp://a/ -> DIRECT\n"
      "http://a/ --tz Asia/Tokyo --resolve b=4.4.4.4 -> DIRECT\n--my-ip 10.0.0.1\n"
      "http://a/ -> DIRECT",
      base);
  ASSERT_EQ(cases.size(), 4U);
  EXPECT_EQ(cases[0].environment.zone, "UTC");
  EXPECT_EQ(cases[1].environment.zone, "Europe/Berlin");
  EXPECT_EQ(cases[1].host, "h");
  EXPECT_EQ(cases[1].environment.names, (std::vector<std::string>{"a=1.1.1.1", "b=3.3.3.3"}));
  EXPECT_EQ(cases[2].environment.zone, "Asia/Tokyo");
  EXPECT_EQ(cases[2].environment.names, (std::vector<std::string>{"a=1.1.1.1", "b=4.4.4.4"}));
  // A further line of options replaces the previous one.
  EXPECT_EQ(cases[3].environment.zone, "UTC");
  EXPECT_EQ(cases[3].host, std::nullopt);
}

TEST(TestCases, ThatAreNotUnderstoodAreNamedWithTheirLine) {
  EXPECT_EQ(refusalOf(""), "cases: there is no case in it");
  EXPECT_EQ(refusalOf("# nothing\n"), "cases: there is no case in it");
  EXPECT_EQ(refusalOf("\nhttp://a/"),
            "cases:2: there is no \"->\"; a case is URL [OPTIONS] -> ANSWER");
  EXPECT_EQ(refusalOf("-> DIRECT"), "cases:1: there is no URL before \"->\"");
  EXPECT_EQ(refusalOf("http://a/ ->"),
            "cases:1: there is no answer behind \"->\"; an empty one is written (empty)");
  EXPECT_EQ(refusalOf("http://a/ http://b/ -> DIRECT"),
            "cases:1: \"http://b/\" is no option; a case is URL [OPTIONS] -> ANSWER");
  EXPECT_EQ(refusalOf("http://a/ --at -> DIRECT"), "cases:1: --at has no value");
  EXPECT_EQ(refusalOf("http://a/ --offline -> DIRECT"),
            "cases:1: there is no option --offline; a case may have --host, --at, --tz, --resolve "
            "and --my-ip");
  EXPECT_EQ(refusalOf("--tz UTC http://a/ -> DIRECT"), "cases:1: options stand behind the URL");
}

TEST(TestCases, AreTenThousandAtMost) {
  std::string text;
  for (std::size_t i = 0; i < kMaxTestCases; ++i) text += "http://a/ -> DIRECT\n";
  EXPECT_EQ(parsed(text).size(), kMaxTestCases);
  EXPECT_EQ(refusalOf(text + "http://a/ -> DIRECT\n"), "cases:10001: more than 10,000 cases");
}

TEST(ComparableAnswer, LeavesBlanksAndEmptyEntriesOut) {
  EXPECT_EQ(comparableAnswer("PROXY a:1;DIRECT"), "PROXY a:1; DIRECT");
  EXPECT_EQ(comparableAnswer(" PROXY a:1 ;; DIRECT;\n"), "PROXY a:1; DIRECT");
  EXPECT_EQ(comparableAnswer(" ; "), "(empty)");
  EXPECT_EQ(comparableAnswer(""), "(empty)");
  EXPECT_NE(comparableAnswer("DIRECT; PROXY a:1"), comparableAnswer("PROXY a:1; DIRECT"));
}

}  // namespace
}  // namespace client
