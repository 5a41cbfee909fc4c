// Tests which parts of a document are used. Each test checks one thing that a client must do or
// must not do.
#include <string>

#include "tests/unit/client/ctl/commands/pvd_test.h"

namespace {

using client::pvd::timeOf;
using pvd_test::documentOf;
using pvd_test::errorOf;
using pvd_test::kHost;
using pvd_test::kNow;
using pvd_test::times;
using pvd_test::with;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kProxy = R"({"protocol": "http-connect", "proxy": "p.example.org:80"})";

std::string proxies(const std::string& entry) {
  return R"("proxies": [)" + entry + "]";
}

/// The reason why the only proxy of a document is ignored.
std::string proxyIgnored(const std::string& entry) {
  const auto document = documentOf(proxies(entry));
  return document.proxies.size() == 1 ? document.proxies[0].whyIgnored : "no proxy";
}

/// The reason why the only rule of a document is ignored.
std::string ruleIgnored(const std::string& rule) {
  const auto document = documentOf(R"("proxy-match": [)" + rule + "]");
  return document.rules.size() == 1 ? document.rules[0].whyIgnored : "no rule";
}

// --- The document ---

TEST(PvdDocument, IsReadWithEverythingInIt) {
  const auto document = documentOf(
      R"("proxies": [{"protocol": "http-connect", "proxy": "p:80", "identifier": "a", "alpn": ["h2"]}],
         "proxy-match": [{"proxies": ["a"], "domains": ["*.Example.org."], "subnets": ["10.1.2.3/8",
         "2001:db8::/32", "192.0.2.1"], "ports": ["80", "1024-2048"]}], "vendor_key": 1)");
  EXPECT_EQ(document.identifier, "proxy.example.org.");
  EXPECT_EQ(document.expires, "2027-01-01T00:00:00Z");
  EXPECT_THAT(document.warnings, IsEmpty());
  ASSERT_EQ(document.proxies.size(), 1U);
  EXPECT_EQ(document.proxies[0].identifier, "a");
  EXPECT_EQ(document.proxies[0].location, "p:80");
  ASSERT_EQ(document.rules.size(), 1U);
  const auto& rule = document.rules[0];
  EXPECT_EQ(rule.whyIgnored, "");
  EXPECT_THAT(rule.domains, ElementsAre("*.example.org"));
  ASSERT_EQ(rule.subnets.size(), 3U);
  EXPECT_EQ(textOf(rule.subnets[0]), "10.0.0.0/8");
  EXPECT_EQ(textOf(rule.subnets[1]), "2001:db8::/32");
  EXPECT_EQ(textOf(rule.subnets[2]), "192.0.2.1/32");
  ASSERT_EQ(rule.ports.size(), 2U);
  EXPECT_EQ(rule.ports[0].last, 80);
  EXPECT_EQ(rule.ports[1].last, 2048);
}

TEST(PvdDocument, IsIgnoredIfItLacksAnythingThatItMustHave) {
  for (const char* text :
       {R"({"expires": "2027-01-01T00:00:00Z", "prefixes": []})",
        R"({"identifier": "proxy.example.org", "prefixes": []})",
        R"({"identifier": "proxy.example.org", "expires": "2027-01-01T00:00:00Z"})",
        R"({"identifier": 1, "expires": "2027-01-01T00:00:00Z", "prefixes": []})"}) {
    EXPECT_THAT(errorOf(text), HasSubstr("lacks")) << text;
  }
  EXPECT_EQ(errorOf("[]"), "it is no JSON object");
  EXPECT_THAT(errorOf(""), HasSubstr("it is no JSON"));
  EXPECT_THAT(errorOf("{\"a\": \"\xff\"}"), HasSubstr("it is no JSON"));
}

TEST(PvdDocument, IsIgnoredIfItsIdentifierIsNotTheProxysHost) {
  EXPECT_EQ(errorOf(R"({"identifier": "other.example.org", "expires": "2027-01-01T00:00:00Z",
                       "prefixes": []})"),
            "it is of \"other.example.org\", not of \"proxy.example.org\"");
  const auto text = with("");
  for (const char* host : {"proxy.example.org", "PROXY.example.org."}) {
    EXPECT_TRUE(client::pvd::read(text, host, kNow).document.has_value()) << host;
  }
  const auto unknown = client::pvd::read(text, std::nullopt, kNow);
  ASSERT_TRUE(unknown.document.has_value());
  EXPECT_THAT(unknown.document->warnings, ElementsAre(HasSubstr("not compared")));
}

TEST(PvdDocument, IsDroppedWhenItHasExpired) {
  const auto end = *timeOf("2027-01-01T00:00:00Z");
  EXPECT_TRUE(client::pvd::read(with(""), kHost, end - 1).document.has_value());
  EXPECT_EQ(client::pvd::read(with(""), kHost, end).error, "it expired at 2027-01-01T00:00:00Z");
}

TEST(PvdDocument, HasTimesInEveryFormOfTheirStandard) {
  EXPECT_EQ(timeOf("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(timeOf("2026-05-15t06:00:00.123456z"), 1'778'824'800);
  EXPECT_EQ(timeOf("2026-05-15T08:30:00+02:30"), 1'778'824'800);
  EXPECT_EQ(timeOf("2026-05-15T05:00:00-01:00"), 1'778'824'800);
  for (const char* text :
       {"", "2026-05-15", "2026-05-15T06:00:00", "2026-02-30T06:00:00Z", "2026-05-15T24:00:00Z",
        "2026-05-15T06:00:00.Z", "2026-05-15T06:00:00+2:00", "2026-05-15T06:00:00+\n2:00",
        "2026-05-15T06:00:00Zx", "2026-05-15 06:00:00Z", "2026-13-15T06:00:00Z",
        "-026-05-15T06:00:00Z"}) {
    EXPECT_EQ(timeOf(text), std::nullopt) << text;
  }
}

TEST(PvdDocument, WithPrefixesOfARouterAdvertisementIsAWarning) {
  const auto reading =
      pvd_test::read(R"({"identifier": "proxy.example.org", "expires": "2027-01-01T00:00:00Z",
                         "prefixes": ["2001:db8::/32"]})");
  ASSERT_TRUE(reading.document.has_value());
  EXPECT_THAT(reading.document->warnings,
              ElementsAre("\"prefixes\" is not empty, as that of a proxy should be"));
}

TEST(PvdDocument, IsRefusedIfANameStandsTwice) {
  EXPECT_EQ(errorOf(with(R"("proxies": [], "proxies": [])")),
            "a name stands twice in one object: proxies");
}

TEST(PvdDocument, MayHaveKeysThatAreNotKnown) {
  EXPECT_THAT(documentOf(R"("future": {"a": [1, 2]}, "vendor_key": null)").warnings, IsEmpty());
}

TEST(PvdDocument, IsUsedAsAWholeOrNotAtAllWhenItIsTooLarge) {
  EXPECT_EQ(documentOf(R"("proxies": )" + times(64, kProxy)).proxies.size(), 64U);
  EXPECT_EQ(errorOf(with(R"("proxies": )" + times(65, kProxy))),
            "\"proxies\" has more than 64 entries");
  const std::string rule = R"({"proxies": []})";
  EXPECT_EQ(documentOf(R"("proxy-match": )" + times(256, rule)).rules.size(), 256U);
  EXPECT_EQ(errorOf(with(R"("proxy-match": )" + times(257, rule))),
            "\"proxy-match\" has more than 256 entries");
  const auto ruleOf = [](std::size_t ports) {
    return R"("proxy-match": [{"proxies": [], "ports": )" + times(ports, "\"80\"") + "}]";
  };
  EXPECT_EQ(documentOf(ruleOf(256)).rules[0].ports.size(), 256U);
  EXPECT_EQ(errorOf(with(ruleOf(257))), "a rule has more than 256 values in \"ports\"");
  const auto textOf = [](std::size_t bytes) {
    const auto head = with(R"("x": ")" + std::string("\""));
    return with(R"("x": ")" + std::string(bytes - head.size(), 'x') + "\"");
  };
  EXPECT_TRUE(pvd_test::read(textOf(256 * 1024)).document.has_value());
  EXPECT_EQ(errorOf(textOf(256 * 1024 + 1)), "it is longer than 256 KiB");
  const auto nested = [](std::size_t depth) {
    return with("\"x\": " + std::string(depth, '[') + std::string(depth, ']'));
  };
  EXPECT_TRUE(pvd_test::read(nested(15)).document.has_value());
  EXPECT_EQ(errorOf(nested(100'000)), "it is nested too deeply");
}

// --- Proxies ---

TEST(PvdProxy, IsIgnoredIfAMandatoryKeyIsNotKnown) {
  EXPECT_EQ(proxyIgnored(R"({"protocol": "http-connect", "proxy": "p:80", "mandatory": ["auth_x"],
                            "auth_x": 1})"),
            "its mandatory key \"auth_x\" is not known");
  EXPECT_EQ(proxyIgnored(R"({"protocol": "http-connect", "proxy": "p:80", "mandatory": "x"})"),
            "\"mandatory\" is no array of texts");
  EXPECT_EQ(proxyIgnored(R"({"protocol": "http-connect", "proxy": "p:80", "auth_x": 1})"), "");
}

TEST(PvdProxy, IsIgnoredIfAMandatoryValueCannotBeProcessed) {
  const std::string head = R"({"protocol": "http-connect", "proxy": "p:80", )";
  EXPECT_EQ(proxyIgnored(head + R"("mandatory": ["alpn"], "alpn": "h2"})"),
            "\"alpn\" is no array of texts");
  for (const char* alpn : {R"(["h3"])", R"(["http/1.1", "h2"])"}) {
    EXPECT_EQ(proxyIgnored(head + R"("mandatory": ["alpn"], "alpn": )" + alpn + "}"),
              "its mandatory \"alpn\" names more than http/1.1");
    EXPECT_EQ(proxyIgnored(head + R"("alpn": )" + alpn + "}"), "");
  }
  EXPECT_EQ(proxyIgnored(head + R"("mandatory": ["alpn"], "alpn": ["http/1.1"]})"), "");
  EXPECT_EQ(proxyIgnored(head + R"("alpn": "h2"})"), "");
}

TEST(PvdProxy, OfAnUnknownProtocolIsIgnored) {
  EXPECT_EQ(proxyIgnored(R"({"protocol": "carrier-pigeon", "proxy": "p:80"})"),
            "its protocol is not known");
  EXPECT_EQ(proxyIgnored(R"({"proxy": "p:80"})"), "it lacks \"protocol\" or \"proxy\"");
  EXPECT_EQ(proxyIgnored("1"), "it is no object");
}

TEST(PvdProxy, HasTheLocationThatItsProtocolWants) {
  const auto ignored = [](const std::string& protocol, const std::string& location) {
    return proxyIgnored(R"({"protocol": ")" + protocol + R"(", "proxy": ")" + location + "\"}");
  };
  for (const char* protocol : {"http-connect", "https-connect", "socks5"}) {
    EXPECT_EQ(ignored(protocol, "[2001:db8::1]:8080"), "");
    for (const char* wrong : {"p", "p:0", "p:65536", "p:x", ":80", "http://p:80", "[::1:80",
                              "a b:80", "p;DIRECT:80", "p\\\":80", "[::1]", "p..q:80"}) {
      EXPECT_EQ(ignored(protocol, wrong), "its location is no host and port") << wrong;
    }
  }
  for (const char* protocol : {"connect-udp", "connect-ip", "connect-tcp"}) {
    EXPECT_EQ(ignored(protocol, "https://p/{target_host}/{target_port}/"), "");
    EXPECT_EQ(ignored(protocol, "p:443"), "its location is no URI template");
    EXPECT_EQ(ignored(protocol, "http://p/"), "its location is no URI template");
  }
}

TEST(PvdProxy, WithAnEmptyIdentifierIsNotOneForAnyTraffic) {
  const auto document =
      documentOf(proxies(R"({"protocol": "http-connect", "proxy": "p:80", "identifier": ""})"));
  EXPECT_EQ(document.proxies[0].whyIgnored, "its identifier is empty or no text");
  EXPECT_TRUE(document.proxies[0].identifier.has_value());
}

TEST(PvdProxy, WhoseMandatoryKeyIsNotThereIsAWarning) {
  EXPECT_THAT(
      documentOf(proxies(R"({"protocol": "socks5", "proxy": "p:1", "mandatory": ["alpn"]})"))
          .warnings,
      ElementsAre("a proxy's mandatory key \"alpn\" is not there"));
}

// --- Rules ---

TEST(PvdRule, IsIgnoredIfItHasAnUnknownKey) {
  EXPECT_EQ(ruleIgnored(R"({"proxies": [], "schemes": ["http"]})"),
            "its key \"schemes\" is not known");
}

TEST(PvdRule, IsIgnoredIfItHasAVendorsKey) {
  EXPECT_EQ(ruleIgnored(R"({"proxies": [], "vendor_key": 1})"),
            "its key \"vendor_key\" is not known");
}

TEST(PvdRule, IsIgnoredIfAValueCannotBeParsed) {
  for (const char* values : {R"("domains": "a.example")",
                             R"("domains": [1])",
                             R"("domains": [])",
                             R"("domains": ["*"])",
                             R"("domains": ["a.*.example"])",
                             R"("domains": ["10.0.0.1"])",
                             R"("domains": ["*."])",
                             R"("domains": ["a b"])",
                             R"("domains": ["ex\u00e4mple.org"])",
                             R"("domains": ["a", ""])",
                             R"("subnets": [])",
                             R"("subnets": ["10.0.0.0/33"])",
                             R"("subnets": ["::/129"])",
                             R"("subnets": ["10.0.0"])",
                             R"("subnets": ["10.0.0.0/"])",
                             R"("subnets": ["a.example"])",
                             R"("ports": [])",
                             R"("ports": [80])",
                             R"("ports": ["0"])",
                             R"("ports": ["65536"])",
                             R"("ports": ["80-"])",
                             R"("ports": ["90-80"])",
                             R"("ports": ["80 "])"}) {
    EXPECT_NE(ruleIgnored(R"({"proxies": [], )" + std::string(values) + "}"), "") << values;
  }
  EXPECT_EQ(ruleIgnored(R"({"domains": ["a"]})"), "it lacks \"proxies\"");
  EXPECT_EQ(ruleIgnored(R"({"proxies": "a"})"), "\"proxies\" is no array of texts");
  EXPECT_EQ(ruleIgnored(R"({"proxies": [], "ports": ["1-65535"], "subnets": ["0.0.0.0/0"]})"), "");
}

}  // namespace
