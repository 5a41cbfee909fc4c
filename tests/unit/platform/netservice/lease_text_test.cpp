#include "platform/netservice/lease_text.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/netservice/dhcp_conf.h"

namespace {

using netservice::LeaseEncoding;
using netservice::leaseText;
using netservice::resolverText;
using netservice::wpadValue;

std::string wpadOf(LeaseEncoding encoding, std::string_view value) {
  return wpadValue(leaseText(encoding, {"eth0", value, "", ""}));
}
std::string searchOf(std::string_view domain, std::string_view search) {
  return resolverText(LeaseEncoding::plain, {"eth0", "", domain, search});
}

TEST(NewLease, IsThreeQuotedLines) {
  EXPECT_EQ(leaseText(LeaseEncoding::plain, {"eth0", "http://a/x", "b.example", "c.example"}),
            "interface='eth0'\ndomain='b.example'\nwpad='http://a/x'\n");
  EXPECT_EQ(leaseText(LeaseEncoding::plain, {"eth0", "", "", ""}),
            "interface='eth0'\ndomain=''\nwpad=''\n");
}

TEST(NewLease, IsReadBackAsItWasWritten) {
  for (const std::string value :
       {"http://a/$(id)`id`;id|id&id>x", "it's", "''", "a\\b", "a\"b", "http://\xc3\xa9/\xff"}) {
    EXPECT_EQ(wpadOf(LeaseEncoding::plain, "<" + value + ">"), "<" + value + ">");
  }
}

TEST(NewLease, EndsAUrlWithItsFirstLineAndDropsControlCharacters) {
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, "http://a/\nwpad=x"), "http://a/");
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, "http://a/\r\n"), "http://a/");
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, std::string_view("http://a/\0b", 11)), "http://a/");
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, "\n"), "");
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, "h\x01t\x1bt\x7fp"), "http");
}

TEST(NewLease, HoldsAUrlOf255BytesAndCutsTheNext) {
  const std::string longest(255, 'a');
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, longest), longest);
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, longest + "b"), longest);
}

TEST(NewLease, TakesEscapesBack) {
  EXPECT_EQ(wpadOf(LeaseEncoding::escaped, "http://a/\\$x\\\\\\303\\251\\000\\012"),
            "http://a/$x\\\xc3\xa9");
  EXPECT_EQ(wpadOf(LeaseEncoding::escaped, "a\\"), "a\\");
  EXPECT_EQ(wpadOf(LeaseEncoding::escaped, "a\\12"), "a12");
  EXPECT_EQ(wpadOf(LeaseEncoding::plain, "a\\012"), "a\\012");
  EXPECT_EQ(resolverText(LeaseEncoding::escaped, {"eth0", "", "a.example\\000", ""}),
            "search a.example\n");
}

TEST(NewLease, TakesHexadecimalDigitsBackAndNothingElse) {
  EXPECT_EQ(wpadOf(LeaseEncoding::hex, "687474703A2f2F612f0a"), "http://a/");
  EXPECT_EQ(wpadOf(LeaseEncoding::hex, "687"), "");
  EXPECT_EQ(wpadOf(LeaseEncoding::hex, "6g"), "");
  EXPECT_EQ(wpadOf(LeaseEncoding::hex, "g6"), "");
}

TEST(NewLease, SearchesItsListElseItsDomain) {
  EXPECT_EQ(searchOf("a.example", "b.example c.example."), "search b.example c.example\n");
  EXPECT_EQ(searchOf("a.example", ""), "search a.example\n");
  EXPECT_EQ(searchOf("a.example\tb.example\n c.example", ""), "search a.example b.example\n");
  EXPECT_EQ(searchOf("", ""), "");
}

TEST(NewLease, KeepsOfASearchListWhatCanBeNames) {
  const std::string label(63, 'a');
  const std::string name = label + '.' + label + '.' + label + '.' + label.substr(0, 61);
  EXPECT_EQ(name.size(), 253U);
  EXPECT_EQ(searchOf("", name), "search " + name + "\n");
  EXPECT_EQ(searchOf("", name + "a"), "");
  EXPECT_EQ(searchOf("", "a" + label + ".example"), "");
  EXPECT_EQ(searchOf("", "a..b .c . $(id) a/b \xc3\xa9 ok_1-x.Example"), "search ok_1-x.Example\n");
}

TEST(NewLease, CutsASearchListAtAName) {
  std::string list(200, 'a');  // five of these names and their blanks are 1004 bytes
  for (std::size_t i = 50; i < list.size(); i += 50) list[i] = '.';
  const std::string five = list + ' ' + list + ' ' + list + ' ' + list + ' ' + list;
  EXPECT_EQ(searchOf("", five + " aaaaaaaaa.example.com"), "search " + five + "\n");
  EXPECT_EQ(searchOf("", five + " bb.example.com.org.net"), "search " + five + "\n");
  EXPECT_EQ(searchOf("", five + " b.example.com.org"), "search " + five + " b.example.com.org\n");
  EXPECT_EQ(searchOf("", five + " bb.example.com.org"), "search " + five + " bb.example.com.org\n");
  EXPECT_EQ(searchOf("", five + " bbb.example.com.org"),
            "search " + five + " bbb.example.com.org\n");
  EXPECT_EQ(searchOf("", five + " bbbb.example.com.org"), "search " + five + "\n");
}

TEST(NewLease, BelongsToItsInterface) {
  const std::string text = leaseText(LeaseEncoding::plain, {"eth0", "", "", ""});
  EXPECT_TRUE(netservice::isLeaseOf(text, "eth0"));
  EXPECT_FALSE(netservice::isLeaseOf(text, "eth"));
  EXPECT_FALSE(netservice::isLeaseOf(text, "eth01"));
  EXPECT_FALSE(netservice::isLeaseOf("", "eth0"));
}

}  // namespace
