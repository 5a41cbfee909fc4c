#include "client/ctl/terminal/url_parts.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

using client::authorityBegin;
using client::hostOf;
using client::schemeOf;

TEST(SchemeOfTest, IsWhatMayStandBeforeTheFirstColon) {
  EXPECT_EQ(schemeOf("http://p"), "http");
  EXPECT_EQ(schemeOf("X+1.-:p"), "X+1.-");
  EXPECT_EQ(schemeOf("p:80/x"), "p");
  for (const auto* const url : {"", "p", ":p", "1p:80", "p/x.pac?u=ftp://b", "[::1]:80", "a_b:1"}) {
    EXPECT_EQ(schemeOf(url), "") << url;
  }
}

TEST(AuthorityBeginTest, IsBehindAValidSchemeAlone) {
  EXPECT_EQ(authorityBegin("http://p"), 7U);
  for (const auto* const url : {"p", "p:1", "u:a://b@p", "p?u=http://q", "://p", "//p"}) {
    EXPECT_EQ(authorityBegin(url), 0U) << url;
  }
}

TEST(HostOfTest, IsFreeOfAllThatStandsAroundIt) {
  for (const auto& [url, host] :
       {std::pair{"http://localhost/", "localhost"}, std::pair{"LOCALHOST", "localhost"},
        std::pair{"http://u:p@localhost/", "localhost"}, std::pair{"localhost?x", "localhost"},
        std::pair{"localhost#x", "localhost"}, std::pair{"http://LocalHost:80?a@b/c", "localhost"},
        std::pair{"http://[::1]:80/", "::1"}, std::pair{"[::1]", "::1"},
        std::pair{"http://u:p@[FE80::A]/x", "fe80::a"}, std::pair{"::1", "::1"},
        std::pair{"u:a:b@p:80", "p"}, std::pair{"p?u=http://localhost/", "p"},
        std::pair{"http://a@b@c:1", "c"}}) {
    EXPECT_EQ(hostOf(url), host) << url;
  }
}

TEST(HostOfTest, IsEmptyWhereThereIsNone) {
  for (const auto* const url : {"", "http://", "http:///x", "http://u@/", ":80", "/x"}) {
    EXPECT_EQ(hostOf(url), "") << url;
  }
}
