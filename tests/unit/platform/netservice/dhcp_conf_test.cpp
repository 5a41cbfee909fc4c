#include "platform/netservice/dhcp_conf.h"

#include <gtest/gtest.h>

#include <string>

using netservice::wpadValue;
using namespace std::string_literals;

TEST(LeaseText, HasNoValueWithoutTheKey) {
  EXPECT_EQ(wpadValue(""), "");
  EXPECT_EQ(wpadValue("domain=example.com\ninterface=eth0\n"), "");
  EXPECT_EQ(wpadValue("wpad\nWPAD=http://a/\nxwpad=http://b/\nwpad2=http://c/\n"), "");
}

TEST(LeaseText, TakesThePlainValueAmongOtherLines) {
  EXPECT_EQ(wpadValue("domain=example.com\nwpad=http://10.0.0.1/proxy.pac\ninterface=eth0\n"),
            "http://10.0.0.1/proxy.pac");
}

TEST(LeaseText, TakesTheLastLineEvenWithoutANewline) {
  EXPECT_EQ(wpadValue("wpad=http://a/\nwpad=http://b/"), "http://b/");
}

TEST(LeaseText, KeepsLaterEqualsSigns) {
  EXPECT_EQ(wpadValue("wpad=http://a/?x=1&y=2\n"), "http://a/?x=1&y=2");
}

TEST(LeaseText, AllowsShellQuotes) {
  EXPECT_EQ(wpadValue("wpad='http://a/p.pac'\n"), "http://a/p.pac");
  EXPECT_EQ(wpadValue("wpad=\"http://a/p.pac\"\n"), "http://a/p.pac");
  EXPECT_EQ(wpadValue("wpad='http://a/it'\\''s'\n"), "http://a/it's");
  EXPECT_EQ(wpadValue("wpad=\"http://a/\\$x\\\"y\\z\"\n"), "http://a/$x\"y\\z");
  EXPECT_EQ(wpadValue("wpad=http://a/\\ b\n"), "http://a/ b");
}

TEST(LeaseText, EndsAnOpenQuoteWithItsLine) {
  EXPECT_EQ(wpadValue("wpad=\"http://a/\n\"\ndomain=x\n"), "http://a/");
  EXPECT_EQ(wpadValue("domain='it\nwpad=http://a/\n"), "http://a/");
}

TEST(LeaseText, TakesOuterBlanksAndQuotesOff) {
  EXPECT_EQ(wpadValue(" wpad = \t http://a/ \t \n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad=' http://a/ '\n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad='\"http://a/\"'\n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad=\" 'http://a/' \"\n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad=' \" \" '\n"), "");
}

TEST(LeaseText, CutsAtNulAndCarriageReturn) {
  EXPECT_EQ(wpadValue("wpad=http://a/\0http://b/\n"s), "http://a/");
  EXPECT_EQ(wpadValue("wpad='http://a/\0'\n"s), "http://a/");
  EXPECT_EQ(wpadValue("wpad=http://a/\r\n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad='http://a/\rhttp://b/'\n"), "http://a/");
  EXPECT_EQ(wpadValue("wpad='\n'\n"), "");
}

TEST(LeaseText, LeavesMetacharactersAndHighBytesAlone) {
  EXPECT_EQ(wpadValue("wpad='http://a/$(reboot);`id`|&<>*'\n"), "http://a/$(reboot);`id`|&<>*");
  EXPECT_EQ(wpadValue("wpad=http://a/\xc3\xa9\xff\n"), "http://a/\xc3\xa9\xff");
}
