#include "pac/proxy_url_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "tests/support/failing_allocator.h"
#include "tests/support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

/// The parser's release callback: frees each entry's url, empties the list, and counts the freed
/// texts.
struct Released {
  std::vector<std::string> urls;
};
void release(ProxyUrlSettings& list, void* context) {
  for (auto& entry : list) {
    static_cast<Released*>(context)->urls.emplace_back(entry.url);
    cleanupProxySetting(&entry);
  }
  list.clear();
}

ProxyUrlSettings entries(const std::string& url) {
  return {{2, string2Char(url.data(), static_cast<std::int32_t>(url.size()))}};
}

/// Uses append, because GCC 12 warns of an overlapping copy for "text" + std::string.
std::string numbered(std::string prefix, int number) {
  return prefix.append(std::to_string(number));
}

std::string urlOf(ProxyUrlCache& cache, const std::string& key) {
  ProxyUrlSettings list;
  return cache.get(key, list) ? list.at(0).url : "(miss)";
}

std::vector<std::string> linesBut(const std::string& unwanted) {
  std::vector<std::string> result;
  for (const auto& line : logLines())
    if (line.text != unwanted)
      result.push_back(std::to_string(line.priority).append(" ").append(line.text));
  return result;
}
const char* const kCleanup = "cleanupProxySetting() called";

TEST(ProxyUrlCache, MissesWhatWasNeverStoredAndLeavesTheListAlone) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  char text[] = "before";
  ProxyUrlSettings list{{3, text}};
  EXPECT_FALSE(cache.get("host", list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].url, text);
}

TEST(ProxyUrlCache, HandsOutCopiesThatShareTheTexts) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  const ProxyUrlSettings stored = entries("PROXY a:1");
  cache.set("host", stored);
  ProxyUrlSettings list;
  ASSERT_TRUE(cache.get("host", list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].type, 2);
  EXPECT_EQ(list[0].url, stored[0].url);
}

TEST(ProxyUrlCache, TakesTheEmptyHostForAnOrdinaryKey) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  EXPECT_EQ(urlOf(cache, ""), "(miss)");
  cache.set("", entries("PROXY a:1"));
  EXPECT_EQ(urlOf(cache, ""), "PROXY a:1");
  EXPECT_TRUE(logged(LOG_NOTICE, "set key:"));
}

TEST(ProxyUrlCache, KeepsAnEmptyAnswer) {
  ProxyUrlCache cache(50, nullptr, nullptr);
  cache.set("host", {});
  ProxyUrlSettings list(1);
  EXPECT_TRUE(cache.get("host", list));
  EXPECT_TRUE(list.empty());
}

TEST(ProxyUrlCache, EvictsTheLeastRecentlyUsedForThe51stHost) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  for (int i = 0; i < 50; ++i) cache.set(numbered("h", i), entries(numbered("PROXY ", i)));
  EXPECT_TRUE(released.urls.empty());
  EXPECT_EQ(urlOf(cache, "h0"), "PROXY 0");  // so h1 is the oldest
  clearLog();
  cache.set("h50", entries("PROXY 50"));
  EXPECT_THAT(linesBut(kCleanup),
              ElementsAre("5 set key:h50", "6 remove key:h1", "6 remove deleteNode key:h1",
                          "6 ~ProxyURLCacheNode called ", "6 setHead key:h50"));
  EXPECT_THAT(released.urls, ElementsAre("PROXY 1"));
  EXPECT_EQ(urlOf(cache, "h1"), "(miss)");
  EXPECT_EQ(urlOf(cache, "h0"), "PROXY 0");
  EXPECT_EQ(urlOf(cache, "h2"), "PROXY 2");
  EXPECT_EQ(urlOf(cache, "h50"), "PROXY 50");
}

TEST(ProxyUrlCache, MovesAHitToTheFront) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  cache.set("a", entries("PROXY a"));
  cache.set("b", entries("PROXY b"));
  clearLog();
  EXPECT_EQ(urlOf(cache, "a"), "PROXY a");
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_INFO, "get key:a"}, LogLine{LOG_INFO, "remove key:a"},
                          LogLine{LOG_INFO, "setHead key:a"}));
}

TEST(ProxyUrlCache, ReplacesAKnownHostInPlaceWithoutReleasingItsOldList) {
  Released released;
  ProxyUrlCache cache(2, release, &released);
  ProxyUrlSettings old = entries("PROXY old");
  cache.set("a", old);
  cache.set("b", entries("PROXY b"));
  clearLog();
  cache.set("a", entries("PROXY new"));
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_NOTICE, "set key:a"}, LogLine{LOG_INFO, "remove key:a"},
                          LogLine{LOG_INFO, "setHead key:a"}));
  EXPECT_TRUE(released.urls.empty());
  EXPECT_STREQ(old[0].url, "PROXY old");
  EXPECT_EQ(urlOf(cache, "a"), "PROXY new");
  EXPECT_EQ(urlOf(cache, "b"), "PROXY b");  // no entry was evicted
  cache.set("c", entries("PROXY c"));
  EXPECT_THAT(released.urls, ElementsAre("PROXY new"));
  cleanupProxySetting(&old[0]);
}

TEST(ProxyUrlCache, MissesEveryHostAfterItWasCleared) {
  Released released;
  ProxyUrlCache cache(50, release, &released);
  for (const char* host : {"b", "", "a"}) cache.set(host, entries(std::string("PROXY ") + host));
  clearLog();
  cache.clearCache();
  EXPECT_THAT(released.urls, ElementsAre("PROXY ", "PROXY a", "PROXY b"));
  EXPECT_THAT(
      logLines(),
      ElementsAre(LogLine{LOG_INFO, "clearCache called "}, LogLine{LOG_INFO, kCleanup},
                  LogLine{LOG_INFO, "~ProxyURLCacheNode called "}, LogLine{LOG_INFO, kCleanup},
                  LogLine{LOG_INFO, "~ProxyURLCacheNode called "}, LogLine{LOG_INFO, kCleanup},
                  LogLine{LOG_INFO, "~ProxyURLCacheNode called "}));
  for (const char* host : {"b", "", "a"}) EXPECT_EQ(urlOf(cache, host), "(miss)");
  cache.set("a", entries("PROXY again"));
  EXPECT_EQ(urlOf(cache, "a"), "PROXY again");
}

TEST(ProxyUrlCache, ReleasesWhatIsLeftWhenItIsDestroyed) {
  Released released;
  {
    ProxyUrlCache cache(50, release, &released);
    cache.set("a", entries("PROXY a"));
    cache.set("b", entries("PROXY b"));
  }
  EXPECT_THAT(released.urls, ElementsAre("PROXY a", "PROXY b"));
}

TEST(ProxyUrlCache, BearsNoCallback) {
  ProxyUrlCache cache(1, nullptr, nullptr);
  char text[] = "PROXY a";
  cache.set("a", {{2, text}});
  cache.set("b", {{2, text}});
  cache.clearCache();
  EXPECT_STREQ(text, "PROXY a");
}

TEST(ProxyUrlCache, CountsACapacityBelowOneAsOne) {
  for (const int capacity : {1, 0, -5}) {
    Released released;
    ProxyUrlCache cache(capacity, release, &released);
    cache.set("a", entries("PROXY a"));
    EXPECT_EQ(urlOf(cache, "a"), "PROXY a");
    cache.set("b", entries("PROXY b"));
    EXPECT_EQ(urlOf(cache, "a"), "(miss)");
    EXPECT_EQ(urlOf(cache, "b"), "PROXY b");
  }
}

TEST(ProxyUrlCache, StaysAsItWasWhereverAnAllocationFails) {
  const std::string longKey(100, 'k');  // keys of this length need an allocation
  const int kNeverThatMany = 50;
  int failures = 0;
  for (int n = 0; n < kNeverThatMany; ++n) {
    Released released;
    released.urls.reserve(2);  // reserved, because the callback must not throw
    ProxyUrlCache cache(2, release, &released);
    cache.set("a", entries("PROXY a"));
    cache.set("b", entries("PROXY b"));
    ProxyUrlSettings fresh = entries("PROXY fresh");
    setlogmask(LOG_MASK(LOG_ERR));  // the capture of log lines would also allocate
    bool failed = false;
    failAllocationsAfter(n);
    try {
      cache.set(longKey, fresh);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    allowAllocations();
    setlogmask(LOG_UPTO(LOG_DEBUG));
    if (!failed) {
      EXPECT_EQ(urlOf(cache, longKey), "PROXY fresh");
      break;
    }
    ++failures;
    EXPECT_TRUE(released.urls.empty());
    EXPECT_EQ(urlOf(cache, longKey), "(miss)");
    EXPECT_EQ(urlOf(cache, "b"), "PROXY b");
    EXPECT_EQ(urlOf(cache, "a"), "PROXY a");
    cache.set("c", entries("PROXY c"));
    EXPECT_THAT(released.urls, ElementsAre("PROXY b"));
    cleanupProxySetting(&fresh[0]);
  }
  // There are at least seven allocations: the list of entries, a key and a node in each of the two
  // maps, the list's node, and the key of that node.
  EXPECT_GE(failures, 7);
  EXPECT_LT(failures, kNeverThatMany);
}

/// A model of the cache that is so simple that it is obviously right: a list of pairs, the newest
/// first.
class Model {
 public:
  explicit Model(std::size_t most) : mMost(most) {}
  bool get(const std::string& key, std::string& url) {
    const auto found = find(key);
    if (found == mPairs.end()) return false;
    mPairs.splice(mPairs.begin(), mPairs, found);
    url = mPairs.front().second;
    return true;
  }
  void set(const std::string& key, const std::string& url) {
    if (const auto found = find(key); found != mPairs.end()) {
      mPairs.erase(found);
    } else if (mPairs.size() >= mMost) {
      mReleased.push_back(mPairs.back().second);
      mPairs.pop_back();
    }
    mPairs.emplace_front(key, url);
  }
  void clear() {
    mPairs.sort();
    for (const auto& pair : mPairs) mReleased.push_back(pair.second);
    mPairs.clear();
  }
  std::vector<std::string> mReleased;

 private:
  using Pairs = std::list<std::pair<std::string, std::string>>;
  Pairs::iterator find(const std::string& key) {
    return std::find_if(mPairs.begin(), mPairs.end(),
                        [&](auto& pair) { return pair.first == key; });
  }
  std::size_t mMost;
  Pairs mPairs;
};

class RandomOperations : public testing::TestWithParam<int> {};

TEST_P(RandomOperations, AgreeWithTheModel) {
  setlogmask(LOG_MASK(LOG_ERR));
  std::mt19937 random(20111u + static_cast<unsigned>(GetParam()));
  const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  Released released;
  std::vector<char*> replaced;  // texts that set() replaced; the test frees them
  {
    ProxyUrlCache cache(GetParam(), release, &released);
    Model model(static_cast<std::size_t>(GetParam()));
    const unsigned hosts = static_cast<unsigned>(GetParam()) * 3 / 2 + 1;
    for (int step = 0; step < 20000; ++step) {
      const std::string key =
          below(hosts) == 0 ? "" : numbered("host", static_cast<int>(below(hosts)));
      const unsigned what = below(1000);
      if (what == 0) {
        cache.clearCache();
        model.clear();
      } else if (what < 500) {
        ProxyUrlSettings list;
        std::string expected;
        const bool hit = model.get(key, expected);
        ASSERT_EQ(cache.get(key, list), hit) << "step " << step;
        if (hit) {
          ASSERT_STREQ(list.at(0).url, expected.c_str()) << "step " << step;
        }
      } else {
        const std::string url = numbered("PROXY ", step);
        ProxyUrlSettings before;
        std::string unused;
        if (cache.get(key, before)) replaced.push_back(before.at(0).url);
        model.get(key, unused);
        cache.set(key, entries(url));
        model.set(key, url);
      }
      ASSERT_EQ(released.urls.size(), model.mReleased.size()) << "step " << step;
    }
    model.clear();
    cache.clearCache();
    EXPECT_THAT(released.urls, ElementsAreArray(model.mReleased));
  }
  for (char* url : replaced) std::free(url);
  setlogmask(LOG_UPTO(LOG_DEBUG));
}

INSTANTIATE_TEST_SUITE_P(Capacities, RandomOperations, testing::Values(1, 2, 7, 50));

}  // namespace
