#include "engine/worker/pac_functions.h"

#include <gtest/gtest.h>

#include "engine/worker/address_text.h"
#include "tests/unit/engine/worker/fake_environment.h"

namespace pac_worker {
namespace {

using std::string_literals::operator""s;

TEST(PlainHostName, HasNoDotAndIsNoLiteral) {
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
  EXPECT_TRUE(isPlainHostName("::1%1"));
  for (const char* number : {"1", "0x7f", "167772161", "010"})
    EXPECT_FALSE(isPlainHostName(number)) << number << " is an IPv4 address";
  EXPECT_TRUE(isPlainHostName("08"));
  EXPECT_TRUE(isPlainHostName("4294967296"));
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
}

TEST_F(Lookup, GivesBothFamiliesToTheExtendedHelpers) {
  EXPECT_EQ(dnsResolveEx(mWorld, "both.test"), "2001:db8::2;10.9.9.9");
  EXPECT_EQ(dnsResolveEx(mWorld, "missing.test"), "");
}

TEST_F(Lookup, NeverAsksForALiteral) {
  EXPECT_EQ(dnsResolve(mWorld, "192.168.0.1"), "192.168.0.1");
  EXPECT_EQ(dnsResolve(mWorld, "2001:DB8::1"), std::nullopt) << "has no IPv4 address";
  EXPECT_EQ(dnsResolveEx(mWorld, "::1"), "::1");
  EXPECT_EQ(dnsResolveEx(mWorld, "2001:DB8:0:0:0:0:0:1"), "2001:db8::1");
  EXPECT_TRUE(mWorld.asked.empty());
}

TEST_F(Lookup, ReadsIpv4LiteralsAsAUrlDoes) {
  for (const auto& [text, address] :
       std::initializer_list<std::pair<const char*, const char*>>{{"010.0.0.001", "8.0.0.1"},
                                                                  {"0x7f.1", "127.0.0.1"},
                                                                  {"1.2.65535", "1.2.255.255"},
                                                                  {"4294967295", "255.255.255.255"},
                                                                  {"0x", "0.0.0.0"},
                                                                  {"1.2.3.4.", "1.2.3.4"}}) {
    EXPECT_EQ(dnsResolve(mWorld, text), address) << text;
    EXPECT_EQ(dnsResolveEx(mWorld, text), address) << text;
  }
  for (const char* bad :
       {"08.1", "256.1", "1.2.65536", "4294967296", "1..2", "1.2.3.4.5", "1.2.3.4.."})
    EXPECT_EQ(dnsResolve(mWorld, bad), std::nullopt) << bad;
  EXPECT_TRUE(mWorld.asked.empty());
}

TEST_F(Lookup, NeverAsksForWhatCannotBeAName) {
  const std::string longest = "a" + std::string(kLongestName - 1, 'b');
  for (const std::string& text :
       {""s, "a b"s, "a\0b"s, "a\nb"s, "[::1]"s, "http://a/"s, "fe80::1%eth0"s, "1.2.3.256"s,
        "\xFF"s, "\xED\xA0\x80"s, longest + "c"}) {
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
}

TEST(Quad, HasFourDecimalFields) {
  EXPECT_EQ(parseQuad("192.168.0.1"), 0xC0A80001U);
  EXPECT_EQ(parseQuad("010.008.8.8"), 0x0A080808U) << "leading zeros are decimal";
  EXPECT_EQ(parseQuad("255.255.255.255"), 0xFFFFFFFFU);
  for (const char* bad : {"", "10.0.0", "10.0.0.0.0", "256.0.0.0", "10.0.0.", ".10.0.0", "a.b.c.d",
                          "10.0.0.0 ", "10.0.0.-1", "10.0.0.0x1", "0010.0.0.0", "+1.0.0.0"})
    EXPECT_EQ(parseQuad(bad), std::nullopt) << bad;
}

TEST(Ipv6, MayEndInAnIpv4Address) {
  EXPECT_EQ(parseIpv6("::1.2.3.4"), parseIpv6("::102:304"));
  EXPECT_EQ(parseIpv6("::ffff:0x1.2.3.010"), parseIpv6("::ffff:102:308"));
  for (const char* bad :
       {"::1.2.3", "::1.2.3.4.", "::1.2.3.256", "1.2.3.4", "::1.2.3.08", "::1.2.3.4:1"})
    EXPECT_EQ(parseIpv6(bad), std::nullopt) << bad;
}

TEST(Ipv6, IsWrittenWithTheLongestRunOfZerosLeftOut) {
  for (const char* text : {"::", "::1", "1::", "1:0:3:4:5:6:7:8", "1:0:0:4::8", "::ffff:102:304",
                           "fe80::a:0:b", "1:2:3:4:5:6:7:8"})
    EXPECT_EQ(textOfIpv6(*parseIpv6(text)), text);
  EXPECT_EQ(textOfIpv6(*parseIpv6("1:0:0:4:0:0:7:8")), "1::4:0:0:7:8") << "the first of two";
  EXPECT_EQ(textOfIpv6(*parseIpv6("1::3:4:5:6:7:8")), "1:0:3:4:5:6:7:8");
}

TEST(OwnAddress, IsTheLoopbackOneIfThereIsNone) {
  FakeEnvironment world;
  EXPECT_EQ(myIpAddress(world), "127.0.0.1");
  EXPECT_EQ(myIpAddressEx(world), "127.0.0.1");
}

TEST(OwnAddress, IsTheFirstOfAllIfThereIsNoIpv4Address) {
  FakeEnvironment world;
  world.ownAny = {"2001:db8::5", "2001:db8::6"};
  EXPECT_EQ(myIpAddress(world), "2001:db8::5");
  EXPECT_EQ(myIpAddressEx(world), "2001:db8::5;2001:db8::6");
}

TEST(OwnAddress, IsTheFirstIpv4Address) {
  FakeEnvironment world;
  world.own4 = {"10.0.0.5", "10.0.0.6"};
  world.ownAny = {"10.0.0.5", "2001:db8::5"};
  EXPECT_EQ(myIpAddress(world), "10.0.0.5");
  EXPECT_EQ(myIpAddressEx(world), "10.0.0.5;2001:db8::5");
}

TEST(Prefix, ComparesLiteralsWithPrefixes) {
  EXPECT_TRUE(liesInPrefix("10.1.2.3", "10.0.0.0/8"));
  EXPECT_TRUE(liesInPrefix("10.1.2.3", "10.1.2.3/32"));
  EXPECT_FALSE(liesInPrefix("10.1.2.2", "10.1.2.3/32"));
  EXPECT_TRUE(liesInPrefix("10.1.2.2", "10.1.2.3/31"));
  EXPECT_TRUE(liesInPrefix("10.1.2.3", "10.99.99.99/8")) << "host bits do not matter";
  EXPECT_TRUE(liesInPrefix("200.1.2.3", "10.0.0.0/0"));
  EXPECT_TRUE(liesInPrefix("2001:db8::1", "2001:db8::/32"));
  EXPECT_FALSE(liesInPrefix("2001:db9::1", "2001:db8::/32"));
  EXPECT_TRUE(liesInPrefix("2001:db8::1", "2001:db8::1/128"));
  EXPECT_FALSE(liesInPrefix("2001:db8::2", "2001:db8::1/128"));
  EXPECT_TRUE(liesInPrefix("2001:db8::2", "::/0"));
  EXPECT_FALSE(liesInPrefix("2001:db8::1", "0.0.0.0/0"));
}

TEST(Prefix, TakesAMappedAddressForItsIpv4) {
  EXPECT_TRUE(liesInPrefix("::ffff:10.1.2.3", "10.0.0.0/8"));
  EXPECT_TRUE(liesInPrefix("10.1.2.3", "::ffff:10.0.0.0/104"));
  EXPECT_FALSE(liesInPrefix("11.1.2.3", "::ffff:10.0.0.0/104"));
}

TEST(Prefix, IsFalseForWhatItCannotRead) {
  for (const char* prefix :
       {"10.0.0.0/33", "10.0.0.0", "10.0.0.0/", "10.0.0.0/-1", "10.0.0.0/+8", "10.0.0.0/8/8",
        "10.0.0.0/0x8", "/8", "", "example.com/8", "10.0.0.0 0/8"})
    EXPECT_FALSE(liesInPrefix("10.0.0.0", prefix)) << prefix;
  for (const char* odd :
       {"10.0.0.0/ 8", "10.0.0.0/8 ", " 10.0.0.0\t/\v8", "10.0.0.0/0008", "0xa000000/8"})
    EXPECT_TRUE(liesInPrefix("10.0.0.0", odd)) << odd;
  EXPECT_FALSE(liesInPrefix("::1", "::1/129"));
  EXPECT_FALSE(liesInPrefix("localhost", "127.0.0.0/8"));
  EXPECT_FALSE(liesInPrefix(" 10.0.0.1", "10.0.0.0/8"));
  EXPECT_FALSE(liesInPrefix("[::1]", "::/0"));
}

TEST(SortIpAddressList, PutsIpv6FirstAndEachFamilyInOrder) {
  EXPECT_EQ(sortIpAddressList("10.2.3.9;2001:4898:28:3:201:2ff:feea:fc14;::1;10.2.3.8"),
            "::1;2001:4898:28:3:201:2ff:feea:fc14;10.2.3.8;10.2.3.9");
  EXPECT_EQ(sortIpAddressList("10.0.0.10;9.0.0.1;10.0.0.9"), "9.0.0.1;10.0.0.9;10.0.0.10");
  EXPECT_EQ(sortIpAddressList("010.0.0.1"), "010.0.0.1") << "the text is kept";
  EXPECT_EQ(sortIpAddressList("10.0.0.1;0xa.1;10.1"), "10.0.0.1;0xa.1;10.1") << "equal: as given";
  EXPECT_EQ(sortIpAddressList("10.0.0.1;FE80::1"), "FE80::1;10.0.0.1");
  EXPECT_EQ(sortIpAddressList("::ffff:10.0.0.2;10.0.0.1"), "::ffff:10.0.0.2;10.0.0.1");
}

TEST(SortIpAddressList, SkipsBlanksAndStraySeparatorsAndRefusesBadEntries) {
  EXPECT_EQ(sortIpAddressList(";;10.0.0.1;;::1;"), "::1;10.0.0.1");
  EXPECT_EQ(sortIpAddressList(" 10.0.0.1 ;\t:: 1; ;"), "::1;10.0.0.1");
  EXPECT_EQ(sortIpAddressList(""), std::nullopt);
  EXPECT_EQ(sortIpAddressList(";;"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.1;example.com"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.1;\n::1"), std::nullopt);
  EXPECT_EQ(sortIpAddressList("10.0.0.256"), std::nullopt);
}

TEST(SortIpAddressList, SortsListsUpToALength) {
  std::string list = "2;1";
  list.insert(0, kLongestSortedList - list.size(), ' ');
  EXPECT_EQ(sortIpAddressList(list), "1;2");
  list.insert(0, 1, ' ');
  EXPECT_EQ(sortIpAddressList(list), std::nullopt);
}

}  // namespace
}  // namespace pac_worker
