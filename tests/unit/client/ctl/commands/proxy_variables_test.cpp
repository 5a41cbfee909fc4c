#include "client/ctl/commands/proxy_variables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "client/ctl/terminal/url_parts.h"

using client::parseEntry;
using client::parseManualProxy;
using client::proxyVariables;
using client::shellLines;
using client::withVariables;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST(ProxyVariablesTest, AllSchemesGoThroughTheProxyInBothSpellings) {
  const auto variables = proxyVariables(parseEntry("SOCKS p:1"), "www.example.org");
  EXPECT_EQ(variables.size(), client::kProxyVariables.size());
  for (const auto* const name :
       {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
    EXPECT_EQ(variables.at(name), "socks5h://p:1") << name;
  }
  EXPECT_EQ(variables.at("no_proxy"), client::kNotThroughProxy);
  EXPECT_EQ(variables.at("NO_PROXY"), client::kNotThroughProxy);
}

TEST(ProxyVariablesTest, AnAnswerForThisMachineIsNotSpokenAgainst) {
  for (const auto* const url :
       {"http://localhost/", "LOCALHOST", "http://u:p@localhost/", "localhost?x",
        "http://[::1]:80/", "http://[0:0::1]/", "http://127.0.0.1:8080", "http://localhost./",
        "http://a.localhost/"}) {
    const auto variables = proxyVariables(parseEntry("PROXY p:1"), client::canonicalOrGiven(url));
    EXPECT_EQ(variables.size(), 6U) << url;
    EXPECT_FALSE(variables.contains("no_proxy")) << url;
    EXPECT_FALSE(variables.contains("NO_PROXY")) << url;
  }
  for (const auto* const url : {"http://localhost.example/", "http://notlocalhost/",
                                "http://128.0.0.2/", "http://[::2]/", "http://a/?localhost"}) {
    EXPECT_TRUE(
        proxyVariables(parseEntry("PROXY p:1"), client::canonicalOrGiven(url)).contains("no_proxy"))
        << url;
  }
}

TEST(ProxyVariablesTest, DirectAndWhatIsOfNoUseSetNothing) {
  EXPECT_TRUE(proxyVariables(parseEntry("DIRECT"), "a").empty());
  EXPECT_TRUE(proxyVariables(parseEntry("junk"), "a").empty());
  EXPECT_TRUE(proxyVariables(parseManualProxy(""), "a").empty());
}

TEST(ShellLinesTest, SetAndExportOrUnset) {
  EXPECT_EQ(shellLines({}),
            "unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY "
            "NO_PROXY\n");
  EXPECT_EQ(shellLines({{"http_proxy", "http://p:1"}, {"HTTPS_PROXY", "a'b"}}),
            "http_proxy='http://p:1'\n"
            "HTTPS_PROXY='a'\\''b'\n"
            "export http_proxy HTTPS_PROXY\n"
            "unset https_proxy all_proxy no_proxy HTTP_PROXY ALL_PROXY NO_PROXY\n");
}

TEST(WithVariablesTest, ReplacesWhatWasSetAndKeepsTheRest) {
  const std::vector<std::string> before{"PATH=/bin",     "http_proxy=old", "NO_PROXY=*",
                                        "ALL_PROXY=",    "http_proxy_x=1", "no equals",
                                        "X=http_proxy=1"};
  EXPECT_THAT(withVariables(before, {}),
              ElementsAre("PATH=/bin", "http_proxy_x=1", "no equals", "X=http_proxy=1"));
  EXPECT_THAT(withVariables(before, {{"http_proxy", "new"}, {"all_proxy", "all"}}),
              UnorderedElementsAre("PATH=/bin", "http_proxy_x=1", "no equals", "X=http_proxy=1",
                                   "http_proxy=new", "all_proxy=all"));
}
