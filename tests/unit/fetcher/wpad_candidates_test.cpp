#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fetcher/pac_fetcher.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> candidates(const std::string& domain) {
  const PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  return fetcher.wpadUrlCandidatesFromDomain(domain);
}

std::string wpad_(const std::string& name) {
  return "http://wpad." + name + "/wpad.dat";
}

TEST(WpadCandidates, RunFromTheLongestNameToTheShortestThatIsNoSuffix) {
  EXPECT_THAT(candidates("eng.example.com"),
              ElementsAre(wpad_("eng.example.com"), wpad_("example.com")));
  EXPECT_THAT(candidates("a.b.c.example.com"),
              ElementsAre(wpad_("a.b.c.example.com"), wpad_("b.c.example.com"),
                          wpad_("c.example.com"), wpad_("example.com")));
}

TEST(WpadCandidates, FollowTheOrderOfASearchList) {
  EXPECT_THAT(candidates("corp.example.co.uk lab.example.org"),
              ElementsAre(wpad_("corp.example.co.uk"), wpad_("example.co.uk"),
                          wpad_("lab.example.org"), wpad_("example.org")));
}

TEST(WpadCandidates, KeepTheDuplicatesOfASearchList) {
  EXPECT_THAT(candidates("lan lan"), ElementsAre(wpad_("lan"), wpad_("lan")));
}

TEST(WpadCandidates, AreNoneForAnEmptyDomainOrBlanks) {
  EXPECT_THAT(candidates(""), IsEmpty());
  EXPECT_THAT(candidates("   "), IsEmpty());
  EXPECT_THAT(candidates("  lan  "), ElementsAre(wpad_("lan")));
}

TEST(WpadCandidates, AreNoneForAPublicSuffixItself) {
  for (const char* suffix : {"com", "co.uk", "uk", "co.jp", "github.io", "kobe.jp", "foo.kobe.jp",
                             "CO.UK", "co.uk.", "Com.", "."}) {
    EXPECT_THAT(candidates(suffix), IsEmpty()) << suffix;
  }
}

TEST(WpadCandidates, StopAboveWildcardRulesAndKeepTheirExceptions) {
  EXPECT_THAT(candidates("corp.example.co.uk"),
              ElementsAre(wpad_("corp.example.co.uk"), wpad_("example.co.uk")));
  EXPECT_THAT(candidates("a.city.kobe.jp"),
              ElementsAre(wpad_("a.city.kobe.jp"), wpad_("city.kobe.jp")));
}

TEST(WpadCandidates, StopAtSuffixesThatTheBuiltInTableDoesNotKnow) {
  EXPECT_THAT(candidates("corp.example.xyz"),
              ElementsAre(wpad_("corp.example.xyz"), wpad_("example.xyz")));
  EXPECT_THAT(candidates("a.b.github.io"),
              ElementsAre(wpad_("a.b.github.io"), wpad_("b.github.io")));
}

TEST(WpadCandidates, NeverDescendToASingleLabel) {
  EXPECT_THAT(candidates("host.corp.lan"), ElementsAre(wpad_("host.corp.lan"), wpad_("corp.lan")));
}

TEST(WpadCandidates, TakeASingleLabelThatIsTheWholeToken) {
  EXPECT_THAT(candidates("lan"), ElementsAre(wpad_("lan")));
  EXPECT_THAT(candidates("search"), ElementsAre(wpad_("search")));
}

TEST(WpadCandidates, KeepCaseAndTrailingDotInTheUrl) {
  EXPECT_THAT(candidates("example.com."), ElementsAre(wpad_("example.com.")));
  EXPECT_THAT(candidates("Eng.EXAMPLE.Com"),
              ElementsAre(wpad_("Eng.EXAMPLE.Com"), wpad_("EXAMPLE.Com")));
}

TEST(WpadCandidates, BearEmptyLabels) {
  EXPECT_THAT(candidates("a..com"), ElementsAre(wpad_("a..com")));
  EXPECT_THAT(candidates("..co.uk.."), IsEmpty());
}

TEST(WpadCandidates, AreNoneForANameThatDnsCannotHold) {
  std::string name = "example.com";
  while (name.size() < 251) name = "a." + name;
  ASSERT_EQ(name.size(), 251u);
  EXPECT_FALSE(candidates("bb" + name).empty());
  EXPECT_THAT(candidates("bbb" + name), IsEmpty());
}

// Without the check of the name, each of these would ask wpad.com or wpad.co.uk, because the checks
// for public suffixes do not see the host of the URL.
TEST(WpadCandidates, AreNoneForANameThatIsNotTheWholeHostOfItsUrl) {
  using namespace std::string_literals;
  for (const auto& name :
       {"com/.example.org"s, "com?.example.org"s, "com#.example.org"s, "example.org@com"s,
        "x.co.uk:80"s, "x.%63o.uk"s, "com\0.example.org"s,
        // libcurl maps these to co.uk, com, eng.example.co.jp and com
        "co\u3002uk"s, "\uff43\uff4f\uff4d"s, "eng.example.\uff43\uff4f.jp"s, "c\u00adom"s}) {
    EXPECT_THAT(candidates(name), IsEmpty()) << name;
  }
  EXPECT_THAT(candidates("com/.example.org eng.example.com"),
              ElementsAre(wpad_("eng.example.com"), wpad_("example.com")));
}

TEST(WpadCandidates, AreThirtyTwoAtMost) {
  std::string list;
  for (int i = 0; i < 128; ++i) list += "eng.example.com ";
  EXPECT_EQ(candidates(list).size(), 32u);
  EXPECT_EQ(candidates(list + "lan").size(), 32u);
  EXPECT_EQ(candidates("lan " + list).size(), 32u);
}

TEST(WpadCandidates, SayTheirLinesInOrder) {
  const PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  clearLog();
  fetcher.wpadUrlCandidatesFromDomain("eng.example.com com");
  auto lines = logLines();
  std::erase_if(lines, [](const LogLine& line) { return !line.text.starts_with("PACFetcher-"); });
  EXPECT_THAT(
      lines,
      ElementsAre(
          LogLine{LOG_NOTICE,
                  "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain:eng.example.com com"},
          LogLine{
              LOG_NOTICE,
              "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain for splice:eng.example.com"},
          LogLine{
              LOG_NOTICE,
              "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns push back candidate:http://wpad.eng.example.com/wpad.dat"},
          LogLine{
              LOG_NOTICE,
              "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns push back candidate:http://wpad.example.com/wpad.dat"},
          LogLine{LOG_NOTICE,
                  "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain for splice:com"},
          LogLine{LOG_INFO, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns candidates size:2"}));
}

}  // namespace
