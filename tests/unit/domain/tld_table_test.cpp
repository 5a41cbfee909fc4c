#include "domain/tld_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <type_traits>

#include "tests/unit/domain/suffix_list_reading.h"

namespace {

std::vector<std::string> bucket(std::size_t index) {
  std::vector<std::string> rules;
  for (std::size_t at = domain::kTldBucketStart[index]; at < domain::kTldBucketStart[index + 1];
       at += rules.back().size() + 1)
    rules.emplace_back(domain::kTldRules + at);
  return rules;
}

TEST(TldTable, HasTheSizesOfItsSnapshot) {
  EXPECT_EQ(domain::kTldBuckets, 4287u);
  EXPECT_EQ(std::size(domain::kTldBucketStart), 4288u);
  EXPECT_EQ(sizeof(domain::kTldRules), 44513u);
  EXPECT_EQ(domain::kTldBucketStart[4287], 44513u);
  EXPECT_TRUE((std::is_same_v<decltype(domain::kTldBucketStart[0]), const std::uint16_t&>));
  EXPECT_EQ(domain::kTldRules[44512], '\0');
}

TEST(TldTable, SpreadsTheRulesOverTheBucketsOfTheirCodePoints) {
  std::array<int, 8> bucketsOfSize{};
  for (std::size_t i = 0; i < domain::kTldBuckets; ++i) {
    ASSERT_LE(domain::kTldBucketStart[i], domain::kTldBucketStart[i + 1]);
    const auto rules = bucket(i);
    ASSERT_LT(rules.size(), bucketsOfSize.size());
    ++bucketsOfSize[rules.size()];
    for (const auto& rule : rules) EXPECT_EQ(plainHash(codePointsOf(rule)) % 4287, i) << rule;
  }
  EXPECT_THAT(bucketsOfSize, testing::ElementsAre(1592, 1555, 799, 253, 71, 12, 4, 1));
}

TEST(TldTable, HoldsEachRuleOfTheListOnce) {
  std::vector<std::string> stored;
  for (std::size_t i = 0; i < domain::kTldBuckets; ++i)
    for (const auto& rule : bucket(i)) stored.push_back(rule);
  auto listed = listedRules();
  std::sort(stored.begin(), stored.end());
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(stored, listed);
  EXPECT_EQ(std::set<std::string>(stored.begin(), stored.end()).size(), 4287u);
  const auto starting = [&](const std::string& marker) {
    return std::count_if(stored.begin(), stored.end(),
                         [&](auto& rule) { return rule.rfind(marker, 0) == 0; });
  };
  EXPECT_EQ(starting("*."), 92);
  EXPECT_EQ(starting("!"), 95);
}

TEST(TldTable, KeepsRulesBeyondAsciiOutOfTheBucketThatLookupsSearch) {
  int beyond = 0;
  for (std::size_t i = 0; i < domain::kTldBuckets; ++i) {
    for (const auto& rule : bucket(i)) {
      if (isAscii(rule)) continue;
      ++beyond;
      EXPECT_NE(plainByteHash(rule) % 4287, i) << rule;
    }
  }
  EXPECT_EQ(beyond, 244);
}

TEST(TldTable, ShowsTheRowsThatTellItsSnapshot) {
  const auto& rules = listedRules();
  const auto holds = [&](const char* rule) {
    return std::find(rules.begin(), rules.end(), rule) != rules.end();
  };
  for (const char* rule : {"*.uk", "!nls.uk", "!bl.uk", "appspot.com", "dyndns.org", "hønefoss.no",
                           "aéroport.ci", "*.sch.uk", "!city.kobe.jp", "museum"})
    EXPECT_TRUE(holds(rule)) << rule;
  for (const char* rule : {"uk", "co.uk", "github.io"}) EXPECT_FALSE(holds(rule)) << rule;
}

}  // namespace
