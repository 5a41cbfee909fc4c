#include "domain/public_suffix.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpsl.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "domain/tld.h"
#include "tests/support/log_capture.h"
#include "tests/unit/domain/suffix_list_reading.h"

namespace {

std::string asSeen(std::string name) {
  while (!name.empty() && name.back() == '.') name.pop_back();
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return name;
}

struct Rule {
  bool exception;
  std::vector<std::string> pattern;  ///< labels without the "!"
};

const std::vector<Rule>& splitRules() {
  static const auto rules = [] {
    std::vector<Rule> result;
    for (const auto& rule : listedRules()) {
      if (!isAscii(rule)) continue;
      const bool exception = rule[0] == '!';
      result.push_back({exception, labelsOf(exception ? rule.substr(1) : rule)});
    }
    return result;
  }();
  return rules;
}

/// The algorithm that the list's authors describe, applied to one rule after the other. A rule
/// matches if its labels equal the last labels of the name; "*" equals any label. If an exception
/// matches, the public suffix is the exception without its first label. Else the longest match is
/// the public suffix. In addition, the parent of a wildcard counts as a public suffix here.
bool isSuffixByTheList(const std::string& name) {
  if (name.empty()) return false;
  const auto labels = labelsOf(name);
  std::size_t longest = 0;
  for (const auto& [exception, pattern] : splitRules()) {
    if (pattern[0] == "*" &&
        std::equal(pattern.begin() + 1, pattern.end(), labels.begin(), labels.end()))
      longest = std::max(longest, labels.size());
    if (pattern.size() > labels.size()) continue;
    const bool matches = std::equal(pattern.rbegin(), pattern.rend(), labels.rbegin(),
                                    [](auto& wanted, auto& label) {
                                      return wanted == label || (wanted == "*" && label != "");
                                    });
    if (matches && exception) return pattern.size() - 1 == labels.size();
    if (matches) longest = std::max(longest, pattern.size());
  }
  return longest == labels.size();
}

bool isSuffixByLibpsl(const std::string& name) {
  return name.find('.') != std::string::npos &&
         psl_is_public_suffix2(psl_builtin(), name.c_str(), PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE) !=
             0;
}

TEST(IsPublicSuffix, AppliesTheBuiltInRulesAsTheListMeansThem) {
  for (const char* name : {"com", "co.jp", "uk", "co.uk", "anything.uk", "foo.kobe.jp", "kobe.jp",
                           "sch.uk", "foo.sch.uk", "appspot.com"})
    EXPECT_TRUE(isPublicSuffix(name)) << name;
  for (const char* name : {"example.com", "example.co.uk", "city.kobe.jp", "nls.uk", "bl.uk",
                           "a.foo.kobe.jp", "x.appspot.com", "*.example"})
    EXPECT_FALSE(isPublicSuffix(name)) << name;
}

TEST(IsPublicSuffix, AsksTheCurrentListForNamesWithADot) {
  EXPECT_TRUE(isPublicSuffix("github.io"));
  EXPECT_FALSE(isPublicSuffix("b.github.io"));
  EXPECT_FALSE(isPublicSuffix("example.xyz"));
  EXPECT_FALSE(isPublicSuffix("corp.lan"));
}

TEST(IsPublicSuffix, LeavesUnknownAndNewerSingleLabelsToTheNetwork) {
  ASSERT_NE(psl_is_public_suffix2(psl_builtin(), "search", PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE),
            0);
  for (const char* name : {"lan", "search", "xyz", "*"}) EXPECT_FALSE(isPublicSuffix(name)) << name;
}

TEST(IsPublicSuffix, SeesNamesInLowerCaseWithoutTrailingDotsUpToTheirFirstZero) {
  for (const char* name : {"CO.UK", "Com", "GitHub.IO", "co.uk.", "com.", "github.io.", "com.."})
    EXPECT_TRUE(isPublicSuffix(name)) << name;
  EXPECT_TRUE(isPublicSuffix(std::string("com\0.example.org", 16)));
  for (const char* name : {"", ".", "..", "lan.", "search.", "example.com."})
    EXPECT_FALSE(isPublicSuffix(name)) << name;
}

TEST(IsPublicSuffix, KeepsBuiltInRulesBeyondAsciiOutOfReach) {
  int beyond = 0;
  for (const auto& rule : listedRules()) {
    if (isAscii(rule)) continue;
    ++beyond;
    EXPECT_EQ(isPublicSuffix(rule), isSuffixByLibpsl(rule)) << rule;
  }
  EXPECT_EQ(beyond, 244);
}

TEST(IsPublicSuffix, SaysNoLine) {
  isPublicSuffix("a.b.example.co.uk");
  isPublicSuffix("com");
  EXPECT_TRUE(logLines().empty());
}

TEST(IsPublicSuffix, AgreesWithBothListsOnEveryRule) {
  for (const auto& rule : listedRules()) {
    if (!isAscii(rule)) continue;
    const std::string bare = rule.substr(rule.find_first_not_of("*.!"));
    EXPECT_EQ(isPublicSuffix(bare), rule[0] != '!' || isSuffixByLibpsl(bare)) << rule;
    if (rule[0] == '*') {
      EXPECT_TRUE(isPublicSuffix(std::string("any-label.").append(bare))) << rule;
    }
    if (rule[0] == '!') {
      EXPECT_TRUE(isPublicSuffix(bare.substr(bare.find('.') + 1))) << rule;
    }
  }
}

TEST(IsPublicSuffix, AgreesWithPlainReadingsOfBothListsOnAnyName) {
  int suffixes = 0;
  const int names = 3000;
  for (unsigned draw = 0; draw < names; ++draw) {
    const std::string name = drawnName(draw);
    const std::string seen = asSeen(name);
    const bool expected = isSuffixByTheList(seen) || isSuffixByLibpsl(seen);
    ASSERT_EQ(isPublicSuffix(name), expected) << name;
    suffixes += expected ? 1 : 0;
  }
  EXPECT_GT(suffixes, names / 10);
  EXPECT_LT(suffixes, names * 9 / 10);
}

/// The names that a walk tries for a search domain: first the whole name, then each shorter
/// remainder, until topLevelDomain or isPublicSuffix finds a public suffix.
std::vector<std::string> walked(const std::string& name) {
  const std::string suffix = topLevelDomain(name);
  std::vector<std::string> result;
  if (name == suffix || isPublicSuffix(name)) return result;
  result.push_back(name);
  for (std::string rest = name; rest.find('.') != std::string::npos;) {
    rest.erase(0, rest.find('.') + 1);
    if (rest == suffix || asSeen(rest).find('.') == std::string::npos || isPublicSuffix(rest))
      break;
    result.push_back(rest);
  }
  return result;
}

TEST(IsPublicSuffix, BoundsTheWalkOverASearchDomain) {
  using testing::ElementsAre;
  using testing::IsEmpty;
  EXPECT_THAT(walked("eng.example.com"), ElementsAre("eng.example.com", "example.com"));
  EXPECT_THAT(walked("co.uk"), IsEmpty());
  EXPECT_THAT(walked("uk"), IsEmpty());
  EXPECT_THAT(walked("com"), IsEmpty());
  EXPECT_THAT(walked("COM"), IsEmpty());
  EXPECT_THAT(walked("corp.example.co.uk"), ElementsAre("corp.example.co.uk", "example.co.uk"));
  EXPECT_THAT(walked("corp.example.xyz"), ElementsAre("corp.example.xyz", "example.xyz"));
  EXPECT_THAT(walked("github.io"), IsEmpty());
  EXPECT_THAT(walked("a.b.github.io"), ElementsAre("a.b.github.io", "b.github.io"));
  EXPECT_THAT(walked("host.corp.lan"), ElementsAre("host.corp.lan", "corp.lan"));
  EXPECT_THAT(walked("lan"), ElementsAre("lan"));
  EXPECT_THAT(walked("search"), ElementsAre("search"));
  EXPECT_THAT(walked("example.com."), ElementsAre("example.com."));
  EXPECT_THAT(walked("Corp.Example.CO.UK"), ElementsAre("Corp.Example.CO.UK", "Example.CO.UK"));
}

}  // namespace
