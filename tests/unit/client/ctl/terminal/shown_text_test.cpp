#include "client/ctl/terminal/shown_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "client/library/bus_text.h"

using client::hasPassword;
using client::isBusText;
using client::shownAge;
using client::shownPassword;
using client::shownTime;
using client::withoutPassword;

TEST(WithoutPasswordTest, HidesThePasswordOfAnAuthority) {
  EXPECT_EQ(withoutPassword("http://user:secret@p:3128/x"), "http://user:***@p:3128/x");
  EXPECT_EQ(withoutPassword("user:secret@p:3128"), "user:***@p:3128");
  EXPECT_EQ(withoutPassword("http://:secret@p"), "http://:***@p");
  EXPECT_EQ(withoutPassword("http://user:@p"), "http://user:***@p");
  EXPECT_EQ(withoutPassword("http://user:se:cr@et@p"), "http://user:***@p");
  EXPECT_EQ(withoutPassword("http://user:sec/ret@p"), "http://user:***@p");
  EXPECT_EQ(withoutPassword("//user:secret@p:1"), "//user:***@p:1");
  EXPECT_EQ(withoutPassword("http:///user:secret@p:1"), "http:///user:***@p:1");
  EXPECT_EQ(withoutPassword("user:a://secret@p"), "user:***@p");
  EXPECT_TRUE(hasPassword("http://user:secret@p"));
}

TEST(WithoutPasswordTest, LeavesWhatHasNone) {
  for (const std::string url : {"", "http://p", "http://p:3128/x", "http://user@p:3128", "p:3128",
                                "http://p/a:b@c", "http://p?a:b@c", "http://p#a:b@c", "//p/a:b@c",
                                "///", "http://", "http://[::1]:80/x@y", "PROXY p:1", "DIRECT"}) {
    EXPECT_EQ(withoutPassword(url), url);
    EXPECT_FALSE(hasPassword(url)) << url;
  }
}

TEST(ShownPasswordTest, IsThreeAsterisksUnlessAskedFor) {
  EXPECT_EQ(shownPassword("secret", false), "***");
  EXPECT_EQ(shownPassword("secret", true), "secret");
  EXPECT_EQ(shownPassword("", false), "");
}

TEST(ShownAgeTest, IsInItsLargestWholeUnit) {
  EXPECT_EQ(shownAge(-5), "0 s");
  EXPECT_EQ(shownAge(0), "0 s");
  EXPECT_EQ(shownAge(119), "119 s");
  EXPECT_EQ(shownAge(120), "2 min");
  EXPECT_EQ(shownAge(7199), "119 min");
  EXPECT_EQ(shownAge(7200), "2 h");
  EXPECT_EQ(shownAge(172799), "47 h");
  EXPECT_EQ(shownAge(172800), "2 days");
}

TEST(ShownTimeTest, BearsTheZonesOffset) {
  setenv("TZ", "XXX-05:30", 1);  // east of Greenwich
  tzset();
  EXPECT_EQ(shownTime(0, false), "1970-01-01T05:30:00+05:30");
  EXPECT_EQ(shownTime(1'234'567, true), "1970-01-01T05:30:01.234+05:30");
  EXPECT_EQ(shownTime(-1, true), "1970-01-01T05:29:59.999+05:30");
  setenv("TZ", "XXX3:30", 1);
  tzset();
  EXPECT_EQ(shownTime(0, false), "1969-12-31T20:30:00-03:30");
}

TEST(IsBusTextTest, IsUtf8WithoutNulAndNoncharacters) {
  for (const auto& text : {"", "plain", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                           "\xf4\x8f\xbf\xbd", "\xed\x9f\xbf", "\xee\x80\x80", "\x7f\x01",
                           "\xef\xb7\x8f", "\xef\xb7\xb0", "\xef\xbf\xbd"}) {
    EXPECT_TRUE(isBusText(text)) << text;
  }
  for (const auto& text :
       {std::string(1, '\0'), std::string("\x80"), std::string("\xc0\xaf"), std::string("\xc3"),
        std::string("\xc3("), std::string("\xe0\x9f\xbf"), std::string("\xe2\x82"),
        std::string("\xed\xa0\x80"), std::string("\xf0\x8f\xbf\xbf"), std::string("\xef\xb7\x90"),
        std::string("\xef\xb7\xaf"), std::string("\xef\xbf\xbe"), std::string("\xef\xbf\xbf"),
        std::string("\xf4\x8f\xbf\xbe"), std::string("\xf4\x90\x80\x80"),
        std::string("\xf5\x80\x80\x80"), std::string("\xff")}) {
    EXPECT_FALSE(isBusText(text)) << text;
  }
}
