#include "settings/manual_script.h"

#include <gtest/gtest.h>

using namespace settings;

namespace {

using Scheme = ManualServer::Scheme;

TEST(ManualServers, AreReadWithTheirParts) {
  const auto servers = parseServers(
      {"proxy.example", "http://a:8080/", "socks5://[2001:db8::1]:1080", "https://user:pw@b:3128"});
  ASSERT_EQ(servers.size(), 4U);
  EXPECT_EQ(servers[0], (ManualServer{Scheme::kAny, "proxy.example", 80}));
  EXPECT_EQ(servers[1], (ManualServer{Scheme::kHttp, "a", 8080}));
  EXPECT_EQ(servers[2], (ManualServer{Scheme::kSocks5, "[2001:db8::1]", 1080}));
  EXPECT_EQ(servers[3], (ManualServer{Scheme::kHttps, "b", 3128}));
}

TEST(ManualServers, OneUnknownSchemeEmptiesTheList) {
  EXPECT_TRUE(parseServers({"a:1", "gopher://b:70"}).empty());
}

TEST(ManualServers, OneThatCannotBeReadIsLeftOut) {
  EXPECT_EQ(parseServers({"a b:1", "good:1", "x:99999", ""}).size(), 1U);
}

TEST(ManualProxyUrl, NamesTheSchemeThatTheDaemonsClientsKnow) {
  EXPECT_EQ(manualProxyUrl({Scheme::kAny, "a", 80}), "http://a:80");
  EXPECT_EQ(manualProxyUrl({Scheme::kSocks, "a", 1}), "socks5h://a:1");
  EXPECT_EQ(manualProxyUrl({Scheme::kSocks4, "a", 1}), "socks4a://a:1");
}

TEST(ManualScript, PutsTheUrlsOwnSchemeFirst) {
  const std::string script = manualScript(
      parseServers({"socks://s:1080", "ftp://f:1", "any:2", "https://t:3", "http://h:4"}), {});
  EXPECT_NE(script.find("if (s === \"https\") return \"PROXY t:3; PROXY any:2; PROXY h:4; "
                        "PROXY f:1; SOCKS s:1080\";"),
            std::string::npos)
      << script;
  EXPECT_NE(script.find("  return \"PROXY any:2; PROXY h:4; PROXY t:3; PROXY f:1; SOCKS s:1080\";"),
            std::string::npos)
      << script;
}

TEST(ManualScript, ExcludesBecomeConditions) {
  const std::string script =
      manualScript(parseServers({"a:1"}),
                   {"word.example", "*suffix", "begin*", "*part*", "ftp://", "*", "https://only"});
  for (const char* line :
       {"if (h.slice(-12) === \"word.example\") return \"DIRECT\";",
        "if (h.slice(-6) === \"suffix\") return \"DIRECT\";",
        "if (h.lastIndexOf(\"begin\", 0) === 0) return \"DIRECT\";",
        "if (h.indexOf(\"part\") >= 0) return \"DIRECT\";", "if (s === \"ftp\") return \"DIRECT\";",
        "if (s === \"https\" && h.slice(-4) === \"only\") return \"DIRECT\";"}) {
    EXPECT_NE(script.find(line), std::string::npos) << line << "\n" << script;
  }
}

TEST(ManualScript, AnExcludedAddressMayBeInBrackets) {
  const std::string script =
      manualScript(parseServers({"a:1"}), {"[2001:DB8::7]", "2001:db8::7", "[2001:db8:*", "[]"});
  const std::string line = "  if (h.slice(-11) === \"2001:db8::7\") return \"DIRECT\";\n";
  EXPECT_NE(script.find(line + line + "  if (h.lastIndexOf(\"2001:db8:\", 0) === 0)"),
            std::string::npos)
      << script;
  EXPECT_EQ(script.find("\"\")"), std::string::npos) << script;
}

TEST(ManualScript, AnExcludeCannotLeaveItsString) {
  const std::string script = manualScript(parseServers({"a:1"}), {"\"); evil(\"", "\\", "\n", "ü"});
  EXPECT_EQ(script.find("evil("), std::string::npos);
  EXPECT_NE(script.find("\\x22\\x29\\x3b\\x20evil\\x28\\x22"), std::string::npos) << script;
}

TEST(EntryOfManualUrl, DropsCredentials) {
  EXPECT_EQ(entryOfManualUrl("http://u:p@h:3128"), "PROXY h:3128");
  EXPECT_EQ(entryOfManualUrl("socks5h://h:1080"), "SOCKS h:1080");
  EXPECT_EQ(entryOfManualUrl(""), "");
}

}  // namespace
