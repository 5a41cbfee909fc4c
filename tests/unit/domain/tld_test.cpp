#include "domain/tld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <syslog.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/unit/domain/suffix_list_reading.h"

namespace {

using testing::ElementsAre;

/// The lookups as their header describes them, step by step, with the rules from the list's file.
/// `lines` are their expected log lines.
class DescribedLookups {
 public:
  DescribedLookups() {
    for (const auto& rule : listedRules())
      mBuckets[plainHash(codePointsOf(rule)) % 4287].push_back(rule);
    int offset = 0;
    for (unsigned i = 0; i < 4287; ++i) {
      mStart.push_back(offset);
      for (const auto& rule : mBuckets[i]) offset += static_cast<int>(rule.size()) + 1;
    }
  }

  std::vector<LogLine> lines;

  int isInTldArray(const std::string& text) {
    say("isInTldArray called ");
    say(std::string("tldhash input:")
            .append(text)
            .append(", len:")
            .append(std::to_string(text.size())));
    std::string folded = text;
    for (char& c : folded)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    const unsigned index = plainByteHash(folded) % 4287;
    say("isInTldArray index:" + std::to_string(index) +
        ", currentIndex:" + std::to_string(mStart[index]));
    for (const auto& rule : mBuckets[index]) {
      say("isInTldArray currentTLD:" + rule);
      if (strcasecmp(rule.c_str(), text.c_str()) == 0) return 1;
    }
    return 0;
  }

  int isEffectiveTld(const std::string& name) {
    say("isEffectiveTld called ");
    if (const int plain = isInTldArray(name)) return plain;
    const auto dot = name.find('.');
    if (dot == std::string::npos) return 0;
    if (isInTldArray(std::string("*").append(name, dot + 1)) == 0) return 0;
    return isInTldArray(std::string("!").append(name));
  }

  std::string topLevelDomain(const std::string& domain) {
    std::string result, suffix, rest = domain;
    for (;;) {
      const auto dot = rest.rfind('.');
      if (dot == std::string::npos) {
        if (!rest.empty()) {
          suffix = suffix.empty() ? rest : rest + "." + suffix;
          if (isEffectiveTld(suffix)) result = suffix;
        }
        say("topLevelDomain domain:" + domain + ", tld:" + result);
        return result;
      }
      const std::string label(rest, dot + 1);
      suffix = suffix.empty() ? label : label + "." + suffix;
      rest.erase(dot);
      if (isEffectiveTld(suffix)) result = suffix;
    }
  }

 private:
  void say(const std::string& text) { lines.push_back({LOG_INFO, text}); }
  std::map<unsigned, std::vector<std::string>> mBuckets;
  std::vector<int> mStart;
};

TEST(TldHash, FollowsTheShiftOf23AndTheNumberOfRules) {
  EXPECT_EQ(tldhash(""), 0u);
  EXPECT_EQ(tldhash("c"), 99u);
  for (const char* text : {"com", "co.jp", "accident-investigation.aero", "*.kobe.jp"})
    EXPECT_EQ(tldhash(text), plainByteHash(text) % 4287) << text;
  EXPECT_EQ(tldhash("h\xc3\xb8nefoss.no"), plainByteHash("h\xc3\xb8nefoss.no") % 4287);
}

TEST(TldHash, FoldsCaseAndShowsTheTextAsGiven) {
  const unsigned bucket = tldhash("CoM");
  EXPECT_EQ(bucket, tldhash("com"));
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "tldhash input:CoM, len:3"},
                                      LogLine{LOG_INFO, "tldhash input:com, len:3"}));
}

TEST(IsInTldArray, SaysWhatItComparesUntilItFinds) {
  EXPECT_EQ(isInTldArray("com"), 1);
  DescribedLookups described;
  described.isInTldArray("com");
  EXPECT_EQ(logLines(), described.lines);
  EXPECT_EQ(logLines().front(), (LogLine{LOG_INFO, "isInTldArray called "}));
  EXPECT_EQ(logLines().back(), (LogLine{LOG_INFO, "isInTldArray currentTLD:com"}));
}

TEST(IsInTldArray, FindsNoEmptyRule) {
  EXPECT_EQ(isInTldArray(""), 0);
}

TEST(IsInTldArray, IgnoresAsciiCase) {
  EXPECT_EQ(isInTldArray("COM"), 1);
  EXPECT_EQ(isInTldArray("Co.jP"), 1);
  EXPECT_TRUE(logged(LOG_INFO, "tldhash input:COM, len:3"));
}

TEST(IsInTldArray, NeverFindsARuleBeyondAscii) {
  EXPECT_EQ(isInTldArray("hønefoss.no"), 0);
  for (const auto& rule : listedRules())
    EXPECT_EQ(isInTldArray(rule.c_str()), isAscii(rule) ? 1 : 0) << rule;
}

TEST(IsInTldArray, FindsOnlyWholeRules) {
  for (const char* text : {"co", "c", "comm", "example.com", "*.u", "uk", "co.uk", "lan", " com"})
    EXPECT_EQ(isInTldArray(text), text == std::string("co") ? 1 : 0) << text;
}

TEST(IsEffectiveTld, TakesPlainRulesAndNoWildcards) {
  EXPECT_NE(isEffectiveTld("com"), 0);
  EXPECT_NE(isEffectiveTld("appspot.com"), 0);
  EXPECT_EQ(isEffectiveTld("city.kobe.jp"), 0);
  EXPECT_EQ(isEffectiveTld("foo.kobe.jp"), 0);
  EXPECT_EQ(isEffectiveTld("co.uk"), 0);
  EXPECT_EQ(isEffectiveTld(""), 0);
}

TEST(IsEffectiveTld, TakesMarkedRulesAsTheyAreWritten) {
  EXPECT_EQ(isEffectiveTld("*.uk"), 1);
  EXPECT_EQ(isEffectiveTld("!nls.uk"), 1);
}

TEST(IsEffectiveTld, AsksForTheWildcardWithoutItsDot) {
  EXPECT_EQ(isEffectiveTld("foo.kobe.jp"), 0);
  EXPECT_TRUE(logged(LOG_INFO, "tldhash input:*kobe.jp, len:8"));
  clearLog();
  EXPECT_EQ(isEffectiveTld("a..kobe.jp"), 0);
  EXPECT_TRUE(logged(LOG_INFO, "tldhash input:*.kobe.jp, len:9"));
  EXPECT_TRUE(logged(LOG_INFO, "tldhash input:!a..kobe.jp, len:11"));
}

TEST(TopLevelDomain, TakesTheLongestSuffixThatIsARule) {
  EXPECT_EQ(topLevelDomain("host.example.com"), "com");
  EXPECT_EQ(topLevelDomain("a.b.example.co.jp"), "co.jp");
  EXPECT_EQ(topLevelDomain("a.b.example.co.uk"), "");
  EXPECT_EQ(topLevelDomain("com"), "com");
  EXPECT_EQ(topLevelDomain("appspot.com"), "appspot.com");
  EXPECT_EQ(topLevelDomain("x.appspot.com"), "appspot.com");
  EXPECT_EQ(topLevelDomain("lan"), "");
  EXPECT_EQ(topLevelDomain("eng.Example.COM"), "COM");
}

TEST(TopLevelDomain, BearsEmptyTextsAndEmptyLabels) {
  EXPECT_EQ(topLevelDomain(""), "");
  EXPECT_EQ(topLevelDomain("example.com."), "com");
  EXPECT_EQ(topLevelDomain("example.com.."), "com");
  EXPECT_EQ(topLevelDomain("."), "");
  EXPECT_EQ(topLevelDomain("..."), "");
  EXPECT_EQ(topLevelDomain(".com"), "com");
  EXPECT_EQ(topLevelDomain("a..com"), "com");
  EXPECT_EQ(topLevelDomain("co..jp"), "jp");
}

TEST(TopLevelDomain, SaysDomainAndSuffixAtItsEnd) {
  topLevelDomain("host.example.com");
  EXPECT_EQ(logLines().back(),
            (LogLine{LOG_INFO, "topLevelDomain domain:host.example.com, tld:com"}));
  topLevelDomain("");
  EXPECT_EQ(logLines().back(), (LogLine{LOG_INFO, "topLevelDomain domain:, tld:"}));
}

TEST(TopLevelDomain, AnswersAndSpeaksAsDescribedForAnyName) {
  std::vector<std::string> names = {"",       ".",     "..",    ".com",
                                    "a..com", "com..", "..com", "a..kobe.jp"};
  for (unsigned draw = 0; draw < 4000; ++draw) names.push_back(drawnName(draw));
  int withSuffix = 0;
  DescribedLookups described;
  for (const auto& name : names) {
    clearLog();
    described.lines.clear();
    const std::string expected = described.topLevelDomain(name);
    ASSERT_EQ(topLevelDomain(name), expected) << name;
    ASSERT_EQ(logLines(), described.lines) << name;
    withSuffix += expected.empty() ? 0 : 1;
  }
  EXPECT_GT(withSuffix, 1000);
  EXPECT_LT(withSuffix, 4000);
}

}  // namespace
