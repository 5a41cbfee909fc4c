#include "engine/worker/pac_functions.h"

#include <gtest/gtest.h>

#include "tests/unit/engine/worker/fake_environment.h"

namespace pac_worker {
namespace {

using std::string_literals::operator""s;

TEST(PlainHostName, HasNoDotAndIsNoIpv6Literal) {
  EXPECT_TRUE(isPlainHostName("www"));
  EXPECT_TRUE(isPlainHostName(""));
  EXPECT_FALSE(isPlainHostName("www.example.com"));
  EXPECT_FALSE(isPlainHostName("www."));
  EXPECT_FALSE(isPlainHostName("192.168.0.1"));
  EXPECT_FALSE(isPlainHostName("::1"));
  EXPECT_FALSE(isPlainHostName("2001:db8::1"));
  EXPECT_FALSE(isPlainHostName("[::1]"));
  EXPECT_TRUE(isPlainHostName("[]"));
  EXPECT_TRUE(isPlainHostName("::1\0"s));
}

TEST(DnsDomainIs, ComparesTheEndOfTheTextAlone) {
  EXPECT_TRUE(dnsDomainIs("www.example.com", ".example.com"));
  EXPECT_TRUE(dnsDomainIs("notexample.com", "example.com"));
  EXPECT_TRUE(dnsDomainIs("example.com", "example.com"));
  EXPECT_TRUE(dnsDomainIs("example.com", ""));
  EXPECT_FALSE(dnsDomainIs("www.EXAMPLE.com", ".example.com"));
  EXPECT_FALSE(dnsDomainIs("com", "example.com"));
  EXPECT_FALSE(dnsDomainIs("www.example.com", ".example.co"));
}

TEST(LocalHostOrDomainIs, TakesTheWholeNameOrItsFirstLabels) {
  EXPECT_TRUE(localHostOrDomainIs("www.example.com", "www.example.com"));
  EXPECT_TRUE(localHostOrDomainIs("www", "www.example.com"));
  EXPECT_TRUE(localHostOrDomainIs("www.example", "www.example.com"));
  EXPECT_TRUE(localHostOrDomainIs("", ".example.com"));
  EXPECT_FALSE(localHostOrDomainIs("ww", "www.example.com"));
  EXPECT_FALSE(localHostOrDomainIs("www.example.com.au", "www.example.com"));
  EXPECT_FALSE(localHostOrDomainIs("WWW", "www.example.com"));
}

TEST(DnsDomainLevels, CountsDots) {
  EXPECT_EQ(dnsDomainLevels(""), 0U);
  EXPECT_EQ(dnsDomainLevels("www"), 0U);
  EXPECT_EQ(dnsDomainLevels("www.example.com"), 2U);
  EXPECT_EQ(dnsDomainLevels("..."), 3U);
}

class Lookup : public testing::Test {
 protected:
  Lookup() {
    mWorld.names4["v4.test"] = {"10.1.2.3", "10.1.2.4"};
    mWorld.namesAny["v4.test"] = {"10.1.2.3", "10.1.2.4"};
    mWorld.namesAny["v6.test"] = {"2001:db8::1"};
    mWorld.namesAny["both.test"] = {"2001:db8::2", "10.9.9.9"};
  }
  FakeEnvironment mWorld;
};

TEST_F(Lookup, GivesTheFirstIpv4Address) {
  EXPECT_EQ(dnsResolve(mWorld, "v4.test"), "10.1.2.3");
  EXPECT_EQ(dnsResolve(mWorld, "v6.test"), std::nullopt);
  EXPECT_EQ(dnsResolve(mWorld, "missing.test"), std::nullopt);
  EXPECT_TRUE(isResolvable(mWorld, "v4.test"));
  EXPECT_FALSE(isResolvable(mWorld, "v6.test"));
}

TEST_F(Lookup, GivesBothFamiliesToTheExtendedHelpers) {
  EXPECT_EQ(dnsResolveEx(mWorld, "both.test"), "2001:db8::2;10.9.9.9");
  EXPECT_EQ(dnsResolveEx(mWorld, "missing.test"), "");
  EXPECT_TRUE(isResolvableEx(mWorld, "v6.test"));
  EXPECT_FALSE(isResolvableEx(mWorld, "missing.test"));
}

TEST_F(Lookup, NeverAsksForALiteral) {
  EXPECT_EQ(dnsResolve(mWorld, "192.168.0.1"), "192.168.0.1");
  EXPECT_EQ(dnsResolve(mWorld, "010.0.0.001"), "010.0.0.001");
  EXPECT_EQ(dnsResolve(mWorld, "2001:DB8::1"), "2001:DB8::1");
  EXPECT_TRUE(isResolvable(mWorld, "192.168.0.1"));
  EXPECT_FALSE(isResolvable(mWorld, "2001:db8::1"));
  EXPECT_EQ(dnsResolveEx(mWorld, "::1"), "::1");
  EXPECT_TRUE(isResolvableEx(mWorld, "::1"));
  EXPECT_TRUE(isInNet(mWorld, "10.0.0.1", "10.0.0.0", "255.0.0.0"));
  EXPECT_FALSE(isInNet(mWorld, "::1", "0.0.0.0", "0.0.0.0"));
  EXPECT_TRUE(mWorld.asked.empty());
}

TEST_F(Lookup, NeverAsksForWhatCannotBeAName) {
  const std::string longest = "a" + std::string(kLongestName - 1, 'b');
  for (const std::string& text :
       {""s, "a b"s, "a\0b"s, "a\nb"s, "[::1]"s, "http://a/"s, "fe80::1%eth0"s, "1.2.3.256"s,
        "1.2.3"s, "\xFF"s, "\xED\xA0\x80"s, longest + "c"}) {
    EXPECT_EQ(dnsResolve(mWorld, text), std::nullopt) << text;
    EXPECT_EQ(dnsResolveEx(mWorld, text), "") << text;
  }
  EXPECT_TRUE(mWorld.asked.empty());
  dnsResolve(mWorld, longest);
  EXPECT_EQ(mWorld.asked, std::vector{longest});
}

TEST_F(Lookup, HandsInternationalNamesOnAsUtf8) {
  dnsResolve(mWorld, "b\u00fccher.test");
  EXPECT_EQ(mWorld.asked, std::vector{"b\u00fccher.test"s});
}

TEST_F(Lookup, TakesNoIpv6AddressWhereIpv4IsWanted) {
  mWorld.names4["odd.test"] = {"::1", "10.0.0.7"};
  EXPECT_EQ(dnsResolve(mWorld, "odd.test"), "10.0.0.7");
  EXPECT_TRUE(isInNet(mWorld, "odd.test", "10.0.0.7", "255.255.255.255"));
}

TEST_F(Lookup, IsInNetResolvesNames) {
  EXPECT_TRUE(isInNet(mWorld, "v4.test", "10.1.0.0", "255.255.0.0"));
  EXPECT_FALSE(isInNet(mWorld, "v4.test", "10.2.0.0", "255.255.0.0"));
  EXPECT_FALSE(isInNet(mWorld, "v6.test", "0.0.0.0", "0.0.0.0"));
  EXPECT_FALSE(isInNet(mWorld, "missing.test", "0.0.0.0", "0.0.0.0"));
}

TEST_F(Lookup, IsInNetWantsDottedQuads) {
  for (const char* bad : {"", "10.0.0", "10.0.0.0.0", "256.0.0.0", "10.0.0.", ".10.0.0", "a.b.c.d",
                          "10.0.0.0 ", "10.0.0.-1", "10.0.0.0x1", "0010.0.0.0", "+1.0.0.0"}) {
    EXPECT_FALSE(isInNet(mWorld, "v4.test", bad, "0.0.0.0")) << bad;
    EXPECT_FALSE(isInNet(mWorld, "v4.test", "10.1.2.3", bad)) << bad;
  }
  EXPECT_TRUE(mWorld.asked.empty()) << "a bad pattern costs no lookup";
}

TEST_F(Lookup, IsInNetTakesAnyMaskAndDecimalFields) {
  EXPECT_TRUE(isInNet(mWorld, "10.99.2.3", "10.0.2.0", "255.0.255.0"));
  EXPECT_FALSE(isInNet(mWorld, "10.99.3.3", "10.0.2.0", "255.0.255.0"));
  EXPECT_TRUE(isInNet(mWorld, "10.8.8.8", "010.008.8.8", "255.255.255.255"));
  EXPECT_TRUE(isInNet(mWorld, "1.2.3.4", "9.9.9.9", "0.0.0.0"));
}

TEST(ConvertAddr, GivesTheSignedNumber) {
  EXPECT_EQ(convertAddr("192.168.0.1"), -1062731775);
  EXPECT_EQ(convertAddr("127.0.0.1"), 0x7F000001);
  EXPECT_EQ(convertAddr("255.255.255.255"), -1);
  EXPECT_EQ(convertAddr("0.0.0.0"), 0);
}

TEST(ConvertAddr, TakesFieldsModulo256AndMissingOnesAsZero) {
  EXPECT_EQ(convertAddr("256.257.0.511"), 0x000100FF);
  EXPECT_EQ(convertAddr("10"), 0x0A000000);
  EXPECT_EQ(convertAddr("10.1"), 0x0A010000);
  EXPECT_EQ(convertAddr(""), 0);
  EXPECT_EQ(convertAddr("..1"), 0x00000100);
  EXPECT_EQ(convertAddr("1.2.3.4.5"), 0x01020304);
  EXPECT_EQ(convertAddr("a.b.c.7"), 7);
  EXPECT_EQ(convertAddr("0.0.0.-1"), 255);
  EXPECT_EQ(convertAddr("0.0.0.-256"), 0);
  EXPECT_EQ(convertAddr("0.0.0. 9 "), 9);
  EXPECT_EQ(convertAddr("0.0.0.--9"), 0);
  EXPECT_EQ(convertAddr("nan.inf.+3.4"), 0x00000304);
}

TEST(OwnAddress, IsTheLoopbackOneWhereThereIsNone) {
  FakeEnvironment world;
  EXPECT_EQ(myIpAddress(world), "127.0.0.1");
  EXPECT_EQ(myIpAddressEx(world), "");
  world.own4 = {"10.0.0.5", "10.0.0.6"};
  world.ownAny = {"10.0.0.5", "2001:db8::5"};
  EXPECT_EQ(myIpAddress(world), "10.0.0.5");
  EXPECT_EQ(myIpAddressEx(world), "10.0.0.5;2001:db8::5");
}

TEST(IsInNetEx, ComparesLiteralsWithPrefixes) {
  EXPECT_TRUE(isInNetEx("10.1.2.3", "10.0.0.0/8"));
  EXPECT_TRUE(isInNetEx("10.1.2.3", "10.1.2.3/32"));
  EXPECT_FALSE(isInNetEx("10.1.2.2", "10.1.2.3/32"));
  EXPECT_TRUE(isInNetEx("10.1.2.2", "10.1.2.3/31"));
  EXPECT_TRUE(isInNetEx("10.1.2.3", "10.99.99.99/8")) << "host bits do not matter";
  EXPECT_TRUE(isInNetEx("200.1.2.3", "10.0.0.0/0"));
  EXPECT_TRUE(isInNetEx("2001:db8::1", "2001:db8::/32"));
  EXPECT_FALSE(isInNetEx("2001:db9::1", "2001:db8::/32"));
  EXPECT_TRUE(isInNetEx("2001:db8::1", "2001:db8::1/128"));
  EXPECT_FALSE(isInNetEx("2001:db8::2", "2001:db8::1/128"));
  EXPECT_TRUE(isInNetEx("2001:db8::2", "::/0"));
  EXPECT_FALSE(isInNetEx("2001:db8::1", "0.0.0.0/0"));
}

TEST(IsInNetEx, TakesAMappedAddressForItsIpv4) {
  EXPECT_TRUE(isInNetEx("::ffff:10.1.2.3", "10.0.0.0/8"));
  EXPECT_TRUE(isInNetEx("10.1.2.3", "::ffff:10.0.0.0/104"));
  EXPECT_FALSE(isInNetEx("11.1.2.3", "::ffff:10.0.0.0/104"));
}

TEST(IsInNetEx, IsFalseForWhatItCannotRead) {
  for (const char* prefix :
       {"10.0.0.0/33", "10.0.0.0", "10.0.0.0/", "10.0.0.0/ 8", "10.0.0.0/8 ", " 10.0.0.0/8",
        "10.0.0.0/-1", "10.0.0.0/+8", "10.0.0.0/8/8", "10.0.0.0/0x8", "10.0.0.0/0008", "/8", "",
        "example.com/8", "10.0.0/8"})
    EXPECT_FALSE(isInNetEx("10.0.0.0", prefix)) << prefix;
  EXPECT_FALSE(isInNetEx("::1", "::1/129"));
  EXPECT_FALSE(isInNetEx("localhost", "127.0.0.0/8"));
  EXPECT_FALSE(isInNetEx(" 10.0.0.1", "10.0.0.0/8"));
  EXPECT_FALSE(isInNetEx("[::1]", "::/0"));
}

TEST(SortIpAddressList, PutsIpv6FirstAndKeepsTextAndOrder) {
  EXPECT_EQ(sortIpAddressList("10.2.3.9;2001:4898:28:3:201:2ff:feea:fc14;::1;10.2.3.8"),
            "2001:4898:28:3:201:2ff:feea:fc14;::1;10.2.3.9;10.2.3.8");
  EXPECT_EQ(sortIpAddressList("010.0.0.1"), "010.0.0.1");
  EXPECT_EQ(sortIpAddressList("10.0.0.1;FE80::1"), "FE80::1;10.0.0.1");
  EXPECT_EQ(sortIpAddressList("::ffff:10.0.0.2;10.0.0.1"), "::ffff:10.0.0.2;10.0.0.1");
}

TEST(SortIpAddressList, SkipsStraySeparatorsAndRefusesBadEntries) {
  EXPECT_EQ(sortIpAddressList(";;10.0.0.1;;::1;"), "::1;10.0.0.1");
  EXPECT_EQ(sortIpAddressList(""), std::nullopt);
  EXPECT_EQ(sortIpAddressList(";;"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.1;example.com"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.1; ::1"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.256"), std::nullopt);
}

}  // namespace
}  // namespace pac_worker
