#include "client/library/proxy_answer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using client::parseAnswer;
using client::parseEntries;
using client::parseEntry;
using client::parseManualProxy;
using client::ProxyEntry;
using client::ProxyKind;
using client::proxyUrl;

namespace {

std::string urlOf(std::string_view entry) {
  const auto parsed = parseEntry(entry);
  EXPECT_EQ(parsed.text, entry);
  return std::string(kindName(parsed.kind)) + ' ' + proxyUrl(parsed);
}

std::string manualUrl(std::string_view text) {
  const auto parsed = parseManualProxy(text);
  EXPECT_EQ(parsed.text, text);
  return std::string(kindName(parsed.kind)) + ' ' + proxyUrl(parsed);
}

void expectUnusable(const ProxyEntry& entry, const std::string& text) {
  EXPECT_EQ(entry, (ProxyEntry{ProxyKind::kUnusable, text, {}, {}, 0}));
  EXPECT_EQ(proxyUrl(entry), "");
}

}  // namespace

TEST(ProxyEntryTest, EachKeywordHasItsScheme) {
  EXPECT_EQ(urlOf("PROXY a.example:8080"), "http http://a.example:8080");
  EXPECT_EQ(urlOf("HTTP a.example:8080"), "http http://a.example:8080");
  EXPECT_EQ(urlOf("HTTPS a.example:8080"), "https https://a.example:8080");
  EXPECT_EQ(urlOf("SOCKS a.example:1"), "socks5h socks5h://a.example:1");
  EXPECT_EQ(urlOf("SOCKS5 a.example:1"), "socks5h socks5h://a.example:1");
  EXPECT_EQ(urlOf("SOCKS4 a.example:1"), "socks4 socks4://a.example:1");
  EXPECT_EQ(urlOf("DIRECT"), "direct ");
}

TEST(ProxyEntryTest, WithoutAPortItIsTheUsualOne) {
  EXPECT_EQ(urlOf("PROXY a"), "http http://a:80");
  EXPECT_EQ(urlOf("HTTPS a"), "https https://a:443");
  EXPECT_EQ(urlOf("SOCKS a"), "socks5h socks5h://a:1080");
  EXPECT_EQ(urlOf("SOCKS4 a"), "socks4 socks4://a:1080");
}

TEST(ProxyEntryTest, BlanksAndLetterCaseDoNotMatter) {
  EXPECT_EQ(urlOf(" \tproxy \t a:1\t "), "http http://a:1");
  EXPECT_EQ(urlOf("PROXY\ta:1"), "http http://a:1");
  EXPECT_EQ(urlOf(" Direct "), "direct ");
}

TEST(ProxyEntryTest, AddressesOfBothKindsAreHosts) {
  EXPECT_EQ(urlOf("PROXY 10.0.0.1:8080"), "http http://10.0.0.1:8080");
  EXPECT_EQ(urlOf("PROXY [2001:db8::1]:8080"), "http http://[2001:db8::1]:8080");
  EXPECT_EQ(urlOf("PROXY [::1]"), "http http://[::1]:80");
  EXPECT_EQ(urlOf("PROXY 2001:db8::1"), "http http://[2001:db8::1]:80");
  EXPECT_EQ(urlOf("PROXY cache_1.corp-x.example.:3128"),
            "http http://cache_1.corp-x.example.:3128");
}

TEST(ProxyEntryTest, APortIsANumberFrom1To65535) {
  EXPECT_EQ(urlOf("PROXY a:1"), "http http://a:1");
  EXPECT_EQ(urlOf("PROXY a:65535"), "http http://a:65535");
  for (const std::string port :
       {"0", "65536", "99999999999999999999", "", "-1", "+1", "1x", "0x1", "1:2", " 1"}) {
    const auto text = "PROXY a:" + port;
    expectUnusable(parseEntry(text), text);
  }
}

TEST(ProxyEntryTest, WhatIsNoAddressIsOfNoUse) {
  for (const std::string text : {"",
                                 " ",
                                 "PROXY",
                                 "PROXY ",
                                 "PROXY :1",
                                 "PROXY a b:1",
                                 "PROXY http://a:1",
                                 "PROXY u:p@a:1",
                                 "PROXY a/:1",
                                 "PROXY -x",
                                 "PROXY .a",
                                 "PROXY [::1",
                                 "PROXY [::1]8",
                                 "PROXY [a]:1",
                                 "PROXY []:1",
                                 "PROXY [::1%eth0]:1",
                                 "PROXY 1::2::3",
                                 "PROXY a\x1b[2J:1",
                                 "PROXY a\n:1",
                                 "PROXY \xc3\xa9:1",
                                 "PROXY $(id):1",
                                 "PROXY a';id':1",
                                 "DIRECT a",
                                 "FTP a:1",
                                 "PROXYa:1",
                                 "SOCKS6 a:1"}) {
    expectUnusable(parseEntry(text), text);
  }
  const std::string longest(255, 'a');
  EXPECT_EQ(parseEntry("PROXY " + longest).kind, ProxyKind::kHttp);
  expectUnusable(parseEntry("PROXY a" + longest), "PROXY a" + longest);
}

TEST(ProxyEntriesTest, AreTakenApartAtSemicolonsInTheirOrder) {
  const auto entries = parseEntries("PROXY a:1;;  SOCKS b ;\tDIRECT ; junk;");
  ASSERT_EQ(entries.size(), 4U);
  EXPECT_EQ(proxyUrl(entries[0]), "http://a:1");
  EXPECT_EQ(proxyUrl(entries[1]), "socks5h://b:1080");
  EXPECT_EQ(entries[2].kind, ProxyKind::kDirect);
  expectUnusable(entries[3], "junk");
  EXPECT_TRUE(parseEntries("").empty());
  EXPECT_TRUE(parseEntries(" ; ;").empty());
}

TEST(ManualProxyTest, IsAUrlOrAnHttpProxyWithoutAScheme) {
  EXPECT_EQ(manualUrl("http://p.example:3128"), "http http://p.example:3128");
  EXPECT_EQ(manualUrl("http://p.example:3128/"), "http http://p.example:3128");
  EXPECT_EQ(manualUrl("p.example:3128"), "http http://p.example:3128");
  EXPECT_EQ(manualUrl("p.example"), "http http://p.example:80");
  EXPECT_EQ(manualUrl(" HTTPS://p.example "), "https https://p.example:443");
  EXPECT_EQ(manualUrl("socks://p"), "socks5h socks5h://p:1080");
  EXPECT_EQ(manualUrl("socks4://p"), "socks4 socks4://p:1080");
  EXPECT_EQ(manualUrl("socks4a://p"), "socks4a socks4a://p:1080");
  EXPECT_EQ(manualUrl("socks5://p"), "socks5 socks5://p:1080");
  EXPECT_EQ(manualUrl("socks5h://[::1]:5"), "socks5h socks5h://[::1]:5");
  EXPECT_EQ(manualUrl(""), "direct ");
  EXPECT_EQ(manualUrl("  "), "direct ");
}

TEST(ManualProxyTest, KeepsItsCredentialsAsTheyAre) {
  EXPECT_EQ(manualUrl("http://user:p%40ss@p:1"), "http http://user:p%40ss@p:1");
  EXPECT_EQ(manualUrl("user:pass@p:1"), "http http://user:pass@p:1");
  EXPECT_EQ(parseManualProxy("http://user:$pass!@p:1").credentials, "user:$pass!");
}

TEST(ManualProxyTest, WhatIsNoProxyIsOfNoUse) {
  for (const std::string text :
       {"ftp://p:1", "://p:1", "http://", "http:///", "http://p/path", "http://p?x", "http://p#x",
        "http://p:port", "http://a b", "http://a\tb", "http://u:p w@h", "http://u'x@h",
        "http://u:p/w@h", "http://a@b@h", "http://p\n:1", "http://\x1b[2Jp", "DIRECT ;"}) {
    expectUnusable(parseManualProxy(text), text);
  }
}

TEST(ProxyAnswerTest, BeginsWithTheMode) {
  const auto direct = ProxyEntry{ProxyKind::kDirect, "", {}, {}, 0};
  const auto off = parseAnswer(std::vector<std::string>{"off", ""});
  ASSERT_TRUE(off);
  EXPECT_EQ(*off, (client::ProxyAnswer{"off", {direct}}));
  const auto unset = parseAnswer(std::vector<std::string>{"manual", ""});
  ASSERT_TRUE(unset);
  EXPECT_EQ(*unset, (client::ProxyAnswer{"manual", {direct}}));
  const auto manual = parseAnswer(std::vector<std::string>{"manual", "socks5://p:1"});
  ASSERT_TRUE(manual);
  EXPECT_EQ(manual->mode, "manual");
  EXPECT_EQ(proxyUrl(manual->entries.at(0)), "socks5://p:1");
}

TEST(ProxyAnswerTest, HasTheEntriesOfAScript) {
  for (const std::string mode : {"pacurl", "wpad"}) {
    const auto answer = parseAnswer(std::vector<std::string>{mode, "PROXY a:1", "DIRECT"});
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->mode, mode);
    ASSERT_EQ(answer->entries.size(), 2U);
    EXPECT_EQ(proxyUrl(answer->entries[0]), "http://a:1");
    EXPECT_EQ(answer->entries[1].kind, ProxyKind::kDirect);
    const auto none = parseAnswer(std::vector<std::string>{mode});
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->entries.empty());
  }
}

TEST(ProxyAnswerTest, HasSixtyFourEntriesAtMost) {
  std::vector<std::string> texts(1 + client::kMaxEntries, "PROXY a:1");
  texts.front() = "pacurl";
  EXPECT_EQ(parseAnswer(texts)->entries.size(), 64U);
  texts.emplace_back("DIRECT");
  EXPECT_EQ(parseAnswer(texts)->entries.size(), 64U);
  EXPECT_EQ(parseAnswer(texts)->entries.back().kind, ProxyKind::kHttp) << "the first ones stay";
}

TEST(ProxyAnswerTest, OfADaemonWithoutServiceIsNone) {
  EXPECT_FALSE(parseAnswer(std::vector<std::string>{"off"}));
  EXPECT_FALSE(parseAnswer({}));
}

TEST(TakesCredentials, ForAListedHostInAnySpelling) {
  const auto takes = [](const std::string& entry, const std::string& host) {
    const auto answer = parseAnswer(std::vector<std::string>{"pacurl", entry});
    return client::takesCredentials(*answer, answer->entries.front(), std::vector{host});
  };
  for (const auto* const entry : {"PROXY [2001:db8::5]:1", "PROXY [2001:DB8:0::5]:1"}) {
    for (const auto* const host : {"2001:db8::5", "[2001:db8::5]", "2001:0db8:0:0::5"}) {
      EXPECT_TRUE(takes(entry, host)) << entry << ' ' << host;
    }
    EXPECT_FALSE(takes(entry, "2001:db8::6"));
    EXPECT_FALSE(takes(entry, "db8"));
  }
  EXPECT_TRUE(takes("PROXY p.example:1", "P.Example"));
  EXPECT_FALSE(takes("PROXY p.example:1", "::1"));
}

TEST(FirstUsableTest, PassesOverWhatIsOfNoUse) {
  const auto entries = parseEntries("junk; PROXY x y; SOCKS b; DIRECT");
  ASSERT_NE(client::firstUsable(entries), nullptr);
  EXPECT_EQ(client::firstUsable(entries), &entries[2]);
  EXPECT_EQ(client::firstUsable(parseEntries("junk")), nullptr);
  EXPECT_EQ(client::firstUsable({}), nullptr);
}
