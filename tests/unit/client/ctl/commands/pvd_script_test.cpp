// Tests the text of a script that is made from a document. tests/integration/test_ctl_pvd.py runs
// such scripts.
#include <string>

#include "tests/unit/client/ctl/commands/pvd_test.h"

namespace {

using pvd_test::documentOf;
using pvd_test::scriptOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

std::string proxy(const std::string& protocol, const std::string& location,
                  const std::string& identifier = "") {
  return R"({"protocol": ")" + protocol + R"(", "proxy": ")" + location + '"' +
         (identifier.empty() ? "" : R"(, "identifier": ")" + identifier + '"') + "}";
}

std::string document(const std::string& proxies, const std::string& rules) {
  return R"("proxies": [)" + proxies + R"(], "proxy-match": [)" + rules + "]";
}

TEST(PvdScript, KeepsTheOrderOfIdentifiers) {
  const auto script = scriptOf(document(proxy("http-connect", "a:1", "one") + ", " +
                                            proxy("http-connect", "b:2", "two") + ", " +
                                            proxy("http-connect", "c:3", "one"),
                                        R"({"proxies": ["two", "one"]})"));
  EXPECT_THAT(script.text, HasSubstr("  return \"PROXY b:2; PROXY a:1; PROXY c:3\";\n"));
  EXPECT_THAT(script.warnings, IsEmpty());
}

TEST(PvdScript, SendsWhatAnEmptyRuleMatchesToNoProxy) {
  const auto script = scriptOf(
      document(proxy("http-connect", "any:1"), R"({"proxies": [], "domains": ["a.example"]})"));
  EXPECT_THAT(script.text, HasSubstr("  if ((host === \"a.example\")) return \"DIRECT\";\n"
                                     "  return \"PROXY any:1\";\n"));
}

TEST(PvdScript, DoesNotUseANamedProxyThatNoRuleLists) {
  const auto script = scriptOf(R"("proxies": [)" + proxy("http-connect", "named:1", "n") + "]");
  EXPECT_THAT(script.text, Not(HasSubstr("named")));
  EXPECT_THAT(script.text, HasSubstr("  return \"DIRECT\";\n"));
}

TEST(PvdScript, TreatsARuleWithoutAnApplicableProxyAsNoMatch) {
  const std::string ignored =
      R"({"protocol": "http-connect", "proxy": "x:1", "identifier": "x", "mandatory": ["y_z"], "y_z": 1})";
  const auto script = scriptOf(document(ignored + ", " + proxy("http-connect", "b:2", "b"),
                                        R"({"proxies": ["x"]}, {"proxies": ["nowhere"]},
                                           {"proxies": ["nowhere", "b"]})"));
  EXPECT_THAT(script.text, HasSubstr("portOf(parts);\n  return \"PROXY b:2\";\n}"));
  EXPECT_THAT(script.warnings,
              ElementsAre(HasSubstr("the proxy \"http-connect x:1\" is ignored: its mandatory key"),
                          "rule 1 is left out: none of its proxies can be used",
                          "rule 2 is left out: none of its proxies can be used"));
}

TEST(PvdScript, LeavesAnIgnoredRuleOut) {
  const auto script = scriptOf(document(
      "",
      R"({"proxies": [], "vendor_key": 1, "domains": ["a"]}, {"proxies": [], "domains": ["b"]})"));
  EXPECT_THAT(script.text, Not(HasSubstr("\"a\"")));
  EXPECT_THAT(script.text, HasSubstr("\"b\""));
  EXPECT_THAT(script.warnings[0], HasSubstr("rule 1 is ignored: its key \"vendor_key\""));
}

TEST(PvdScript, WantsAllPropertiesOfARuleAndOneValueOfEach) {
  const auto script = scriptOf(document(
      "",
      R"({"proxies": [], "domains": ["a", "*.b"], "ports": ["80", "90-99"], "subnets": ["::1"]})"));
  EXPECT_THAT(script.text,
              HasSubstr("  if ((port === 80 ||\n       (port >= 90 && port <= 99)) &&\n"
                        "      (host === \"a\" ||\n       below(host, \"b\")) &&\n"
                        "      (inSubnet(host, \"::1/128\"))) return \"DIRECT\";\n"));
  // For another port, the right answer can be DIRECT.
  EXPECT_THAT(script.warnings[0],
              "rule 1 names ports: the daemon caches one answer for a host, also "
              "for its other ports");
}

TEST(PvdScript, SaysWhatTheDaemonKnowsAndWarnsOfTheRest) {
  const auto script = scriptOf(document(
      proxy("http-connect", "h:1", "a") + ", " + proxy("socks5", "s:2", "a") + ", " +
          proxy("https-connect", "t:3", "a") + ", " + proxy("connect-udp", "https://u/", "a") +
          ", " + proxy("connect-ip", "https://i/", "a") + ", " +
          proxy("connect-tcp", "https://t/", "a"),
      R"({"proxies": ["a"]})"));
  EXPECT_THAT(script.text, HasSubstr("return \"PROXY h:1; SOCKS s:2\";"));
  EXPECT_THAT(script.warnings,
              ElementsAre("the proxy \"socks5 s:2\" becomes SOCKS, which names no version",
                          HasSubstr("\"https-connect t:3\" cannot be expressed"),
                          HasSubstr("\"connect-udp https://u/\" cannot be expressed"),
                          HasSubstr("\"connect-ip https://i/\" cannot be expressed"),
                          HasSubstr("\"connect-tcp https://t/\" cannot be expressed")));
}

TEST(PvdScript, IsNoneIfAllProxiesOfARuleFallAway) {
  const auto script =
      scriptOf(document(proxy("https-connect", "t:3", "a"), R"({"proxies": ["a"]})"));
  EXPECT_EQ(script.text, "");
  EXPECT_EQ(script.error, "rule 1 cannot be expressed: no answer can name one of its proxies");
  const auto any = scriptOf(R"("proxies": [)" + proxy("https-connect", "t:3") + "]");
  EXPECT_EQ(any.text, "");
  EXPECT_EQ(any.error,
            "the proxies for any traffic cannot be expressed: no answer can name one of them");
}

TEST(PvdScript, HasNoEntryThatProgramsRefuse) {
  const auto two = proxy("http-connect", "-p:1", "a") + ", " + proxy("http-connect", "b:2", "a");
  const auto script = scriptOf(document(two, R"({"proxies": ["a"]})"));
  EXPECT_THAT(script.text, HasSubstr("return \"PROXY b:2\";"));
  EXPECT_THAT(script.warnings, ElementsAre("the proxy \"http-connect -p:1\" cannot be expressed: "
                                           "programs use no host of this form"));
  const auto none = scriptOf(document(proxy("socks5", "-p:1", "a"), R"({"proxies": ["a"]})"));
  EXPECT_EQ(none.error, "rule 1 cannot be expressed: no answer can name one of its proxies");
}

TEST(PvdScript, NamesAProxyOnceInARule) {
  const auto answerFor = [](const std::string& identifiers) {
    return scriptOf(document(proxy("http-connect", "p:1", "a") + ", " + proxy("socks5", "s:1", "b"),
                             R"({"proxies": )" + identifiers + "}"))
        .text;
  };
  EXPECT_EQ(answerFor(R"(["a", "b", "a"])"), answerFor(R"(["a", "b"])"));
}

TEST(PvdScript, WarnsOfAHintThatItLoses) {
  const std::string head = R"("proxies": [{"protocol": "http-connect", "proxy": "p:1", "alpn": )";
  EXPECT_THAT(scriptOf(head + R"(["h2"]}])").warnings,
              ElementsAre("the hint \"alpn\" of the proxy \"http-connect p:1\" is lost: programs "
                          "use HTTP/1.1"));
  EXPECT_THAT(scriptOf(head + R"(["http/1.1"]}])").warnings, IsEmpty());
}

TEST(PvdScript, SaysWhatIsUsedWhereNoRuleMatches) {
  const auto one = documentOf("");
  const auto script = client::pvd::scriptOf(one, "PROXY known:8080; DIRECT");
  EXPECT_THAT(script.text, HasSubstr("  return \"PROXY known:8080; DIRECT\";\n}"));
  EXPECT_THAT(script.warnings,
              ElementsAre(HasSubstr("what no rule matches gets \"PROXY known:8080")));
}

TEST(PvdScript, EndsWithTheFirstRuleThatMatchesEverything) {
  const auto script =
      scriptOf(document("", R"({"proxies": []}, {"proxies": [], "domains": ["unreachable"]})"));
  EXPECT_THAT(script.text, Not(HasSubstr("unreachable")));
  EXPECT_THAT(script.warnings, IsEmpty());
}

TEST(PvdScript, IsNoLongerThanTheDaemonTakes) {
  const auto rules = [](std::size_t count) {
    const auto rule = R"({"proxies": [], "ports": )" + pvd_test::times(200, "\"8\"") + "}";
    return R"("proxy-match": )" + pvd_test::times(count, rule);
  };
  EXPECT_NE(scriptOf(rules(100)).text, "");
  const auto script = scriptOf(rules(200));
  EXPECT_EQ(script.text, "");
  EXPECT_EQ(script.error, "the script is longer than 512,000 bytes");
}

}  // namespace
