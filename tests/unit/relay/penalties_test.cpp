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
                  Penalties::Clock::time_point now) {
  penalties.order(entries, now);
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

}  // namespace
