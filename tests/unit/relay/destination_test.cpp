#include "relay/destination.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

TEST(Authority, IsReadWithNamesAndAddresses) {
  EXPECT_EQ(readAuthority("Example.ORG:443", 0), (Destination{"example.org", 443}));
  EXPECT_EQ(readAuthority("[2001:db8::1]:80", 0), (Destination{"2001:db8::1", 80}));
  EXPECT_EQ(readAuthority("a", 80), (Destination{"a", 80}));
  EXPECT_EQ(readAuthority("a:", 80), (Destination{"a", 80}));
}

TEST(Authority, ThatIsNoneIsRefused) {
  for (const char* text : {"", "a", ":443", "a:0", "a:65536", "a:+1", "a:1x", "u@a:1", "a b:1",
                           "[::1]", "[::1", "[x]:1", "::1:1", "a/b:1", "a\\b:1", "a%00:1"}) {
    EXPECT_FALSE(readAuthority(text, 0)) << text;
  }
}

TEST(Authority, HasANameOfAtMost253Characters) {
  const std::string longest(kMaxHostName, 'a');
  EXPECT_TRUE(readAuthority(longest + ":1", 0));
  EXPECT_FALSE(readAuthority(longest + "a:1", 0));
}

TEST(HttpTarget, IsSplitIntoDestinationAndPath) {
  const auto target = readHttpTarget("HTTP://A:8080/b?c");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->destination, (Destination{"a", 8080}));
  EXPECT_EQ(target->path, "/b?c");
  EXPECT_EQ(readHttpTarget("http://a?b")->path, "?b");
  for (const char* text :
       {"https://a/", "http:///", "http://u:p@a/", "http://a/#f", "ftp://a/", "/"}) {
    EXPECT_FALSE(readHttpTarget(text)) << text;
  }
}

TEST(Destination, IsWrittenWithBracketsAroundIpv6) {
  EXPECT_EQ((Destination{"::1", 80}).text(), "[::1]:80");
  EXPECT_EQ((Destination{"a", 80}).hostField(80), "a");
  EXPECT_EQ((Destination{"a", 81}).hostField(80), "a:81");
}

}  // namespace
