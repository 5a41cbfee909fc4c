#include "engine/host/lookup_cache.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using pac_engine::AddressFamily;
using pac_engine::LookupCache;
using std::chrono::milliseconds;
using std::chrono::seconds;

LookupCache::Key key(const std::string& name) {
  return {name, AddressFamily::kIpv4};
}

const LookupCache::Clock::time_point kStart{seconds(1000)};
const LookupCache::Addresses kAddresses{"10.0.0.1"};

TEST(LookupCache, KeepsAnAnswerForItsLifetime) {
  LookupCache cache;
  cache.store(key("a"), kAddresses, seconds(30), kStart);
  EXPECT_EQ(cache.find(key("a"), kStart + milliseconds(29999)), kAddresses);
  EXPECT_EQ(cache.find(key("a"), kStart + seconds(30)), std::nullopt);
}

TEST(LookupCache, KeepsNoAnswerLongerThanAMinute) {
  LookupCache cache;
  cache.store(key("a"), kAddresses, seconds(86400), kStart);
  EXPECT_EQ(cache.find(key("a"), kStart + milliseconds(59999)), kAddresses);
  EXPECT_EQ(cache.find(key("a"), kStart + seconds(60)), std::nullopt);
}

TEST(LookupCache, KeepsAFailureForFiveSeconds) {
  LookupCache cache;
  cache.store(key("a"), {}, seconds(0), kStart);
  EXPECT_EQ(cache.find(key("a"), kStart + milliseconds(4999)), LookupCache::Addresses());
  EXPECT_EQ(cache.find(key("a"), kStart + seconds(5)), std::nullopt);
}

TEST(LookupCache, KeepsNothingThatMayNotBeKept) {
  LookupCache cache;
  cache.store(key("a"), kAddresses, seconds(0), kStart);
  EXPECT_EQ(cache.find(key("a"), kStart), std::nullopt);
}

TEST(LookupCache, TellsFamiliesApart) {
  LookupCache cache;
  cache.store(key("a"), kAddresses, seconds(60), kStart);
  EXPECT_EQ(cache.find({"a", AddressFamily::kAny}, kStart), std::nullopt);
}

TEST(LookupCache, DropsTheOldestOf501Names) {
  LookupCache cache;
  for (int i = 0; i < 500; ++i) {
    cache.store(key(std::to_string(i)), kAddresses, seconds(60), kStart);
  }
  EXPECT_EQ(cache.find(key("0"), kStart), kAddresses);
  cache.store(key("500"), kAddresses, seconds(60), kStart);
  EXPECT_EQ(cache.find(key("0"), kStart), std::nullopt);
  EXPECT_EQ(cache.find(key("1"), kStart), kAddresses);
  EXPECT_EQ(cache.find(key("500"), kStart), kAddresses);
}

TEST(LookupCache, CountsANameStoredAgainOnceAndAsYoung) {
  LookupCache cache;
  for (int i = 0; i < 500; ++i) {
    cache.store(key(std::to_string(i)), kAddresses, seconds(60), kStart);
  }
  cache.store(key("0"), {"10.0.0.2"}, seconds(60), kStart);
  EXPECT_EQ(cache.find(key("1"), kStart), kAddresses);
  cache.store(key("500"), kAddresses, seconds(60), kStart);
  EXPECT_EQ(cache.find(key("0"), kStart), LookupCache::Addresses{"10.0.0.2"});
  EXPECT_EQ(cache.find(key("1"), kStart), std::nullopt);
}

TEST(LookupCache, IsEmptyAfterClear) {
  LookupCache cache;
  cache.store(key("a"), kAddresses, seconds(60), kStart);
  cache.clear();
  EXPECT_EQ(cache.find(key("a"), kStart), std::nullopt);
}

}  // namespace
