#include "relay/penalties.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

using std::chrono::minutes;
using std::chrono::seconds;

Entry proxy(const std::string& host) {
  return {PROXYMANAGER_HTTP, "PROXY " + host + ":1", host, 1, ""};
}

std::string order(Penalties& penalties, std::vector<Entry> entries,
                  Penalties::Clock::time_point now, const std::string& destination = "") {
  penalties.order(entries, destination, now);
  std::string hosts;
  for (const auto& entry : entries) hosts += entry.isDirect() ? "-" : entry.host;
  return hosts;
}

TEST(Penalties, PutAProxyBehindAllOthersForTheirTime) {
  Penalties penalties(minutes{5});
  const Penalties::Clock::time_point now{};
  const std::vector<Entry> entries{proxy("a"), proxy("b"), Entry(), proxy("c")};
  penalties.add(proxy("a"), "dead", now);
  EXPECT_EQ(order(penalties, entries, now), "b-ca");
  penalties.add(proxy("b"), "dead", now + seconds{1});
  EXPECT_EQ(order(penalties, entries, now + seconds{299}), "-cab");
  EXPECT_EQ(order(penalties, entries, now + seconds{300}), "a-cb");
  EXPECT_EQ(order(penalties, entries, now + seconds{301}), "ab-c");
}

TEST(Penalties, NeverTakeDirect) {
  Penalties penalties(minutes{5});
  penalties.add(Entry(), "unreachable");
  EXPECT_TRUE(penalties.list().empty());
}

TEST(Penalties, AreKeptOfAtMost256Proxies) {
  Penalties penalties(minutes{5});
  const Penalties::Clock::time_point now{};
  for (std::size_t count = 0; count <= kMaxPenalties; count++) {
    penalties.add(proxy("p" + std::to_string(count)), "dead",
                  now + seconds{static_cast<int>(count)});
  }
  EXPECT_EQ(penalties.list(now).size(), kMaxPenalties);
  EXPECT_FALSE(penalties.list(now).contains(proxy("p0").name()));
}

TEST(Penalties, OfADoubtAreForItsDestinationAlone) {
  Penalties penalties(minutes{5});
  const Penalties::Clock::time_point now{};
  const std::vector<Entry> entries{proxy("a"), Entry(), proxy("b")};
  penalties.doubt(proxy("a"), "dead:1", "silent", now);
  penalties.doubt(proxy("a"), "dead:1", "silent", now + seconds{1});
  EXPECT_TRUE(penalties.list(now).empty());
  EXPECT_EQ(order(penalties, entries, now, "dead:1"), "-ba");
  EXPECT_EQ(order(penalties, entries, now, "good:1"), "a-b");
  EXPECT_EQ(order(penalties, entries, now + seconds{301}, "dead:1"), "a-b");
}

TEST(Penalties, FollowDoubtsOfTwoDestinationsWithoutAnAnswerInBetween) {
  Penalties penalties(minutes{5});
  const Penalties::Clock::time_point now{};
  penalties.doubt(proxy("a"), "dead:1", "silent", now);
  penalties.answered(proxy("b"));
  penalties.answered(proxy("a"));
  penalties.doubt(proxy("a"), "dead:2", "silent", now);
  EXPECT_TRUE(penalties.list(now).empty());
  penalties.doubt(proxy("b"), "dead:1", "silent", now);
  EXPECT_TRUE(penalties.list(now).empty()) << "a doubt of another proxy counted";
  penalties.doubt(proxy("a"), "dead:3", "silent", now);
  EXPECT_EQ(penalties.list(now).size(), 1U);
  EXPECT_EQ(penalties.list(now).count(proxy("a").name()), 1U);
}

TEST(Penalties, OfADoubtAreNeverForDirect) {
  Penalties penalties(minutes{5});
  penalties.doubt(Entry(), "dead:1", "silent");
  penalties.doubt(Entry(), "dead:2", "silent");
  EXPECT_TRUE(penalties.list().empty());
}

TEST(Penalties, OfADoubtAreKeptForAtMost256Destinations) {
  Penalties penalties(minutes{5});
  const Penalties::Clock::time_point now{};
  const std::vector<Entry> entries{proxy("a"), proxy("b")};
  for (std::size_t count = 0; count <= kMaxDoubts; count++) {
    penalties.doubt(proxy("a"), "d" + std::to_string(count), "silent",
                    now + std::chrono::milliseconds{static_cast<int>(count)});
    penalties.answered(proxy("a"));
    if (count + 1 == kMaxDoubts) {
      EXPECT_EQ(order(penalties, entries, now, "d0"), "ba");
    }
  }
  EXPECT_EQ(order(penalties, entries, now, "d0"), "ab");
  EXPECT_EQ(order(penalties, entries, now, "d1"), "ba");
}

}  // namespace
