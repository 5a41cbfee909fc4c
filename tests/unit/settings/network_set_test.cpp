#include "settings/network_set.h"

#include <gtest/gtest.h>

using namespace settings;

namespace {

using Method = PushedConfiguration::Method;

NetworkConfiguration wpadOn(const std::string& interface) {
  PushedConfiguration pushed;
  pushed.method = Method::kAuto;
  pushed.interface = interface;
  return translate(pushed);
}

NetworkConfiguration directOn(const std::string& interface) {
  PushedConfiguration pushed;
  pushed.interface = interface;
  return translate(pushed);
}

TEST(Translate, AUrlLosesTheBlanksAndLineEndsAroundIt) {
  PushedConfiguration pushed;
  pushed.method = Method::kAuto;
  for (const char* url : {"http://h/p.pac\n", " http://h/p.pac ", "\r\nhttp://h/p.pac\t\x7f"}) {
    pushed.url = url;
    EXPECT_TRUE(translate(pushed).isUsable) << url;
    EXPECT_EQ(translate(pushed).configuration.pacUrl, "http://h/p.pac");
  }
  for (const char* url : {"\n", " "}) {
    pushed.url = url;
    EXPECT_TRUE(translate(pushed).isUsable);
    EXPECT_EQ(translate(pushed).configuration.mode, Mode::kWpad);
  }
}

TEST(Translate, AutoIsAUrlBeforeAScriptBeforeWpad) {
  PushedConfiguration pushed;
  pushed.method = Method::kAuto;
  EXPECT_EQ(translate(pushed).configuration.mode, Mode::kWpad);
  pushed.script = "function FindProxyForURL() {}";
  EXPECT_EQ(translate(pushed).configuration.mode, Mode::kPacUrl);
  EXPECT_EQ(translate(pushed).script, *pushed.script);
  pushed.url = "http://h/p.pac";
  EXPECT_EQ(translate(pushed).configuration.pacUrl, "http://h/p.pac");
  EXPECT_TRUE(translate(pushed).script.empty());
}

TEST(Translate, AUrlThatTheDaemonCannotFetchTakesNoPart) {
  PushedConfiguration pushed;
  pushed.method = Method::kAuto;
  pushed.url = "file:///etc/passwd";
  EXPECT_FALSE(translate(pushed).isUsable);
}

TEST(Translate, OneServerWithoutExcludesIsModeManual) {
  PushedConfiguration pushed;
  pushed.method = Method::kManual;
  pushed.servers = {"proxy.example:3128"};
  const auto translated = translate(pushed);
  EXPECT_TRUE(translated.isUsable);
  EXPECT_EQ(translated.configuration.mode, Mode::kManual);
  EXPECT_EQ(translated.configuration.proxyUrl, "http://proxy.example:3128");
  EXPECT_TRUE(translated.script.empty());
}

TEST(Translate, ExcludesMakeAScript) {
  PushedConfiguration pushed;
  pushed.method = Method::kManual;
  pushed.servers = {"proxy.example:3128"};
  pushed.excludes = {"example.org"};
  const auto translated = translate(pushed);
  EXPECT_EQ(translated.configuration.mode, Mode::kPacUrl);
  EXPECT_NE(translated.script.find("FindProxyForURL"), std::string::npos);
}

TEST(Translate, ManualWithoutAUsableServerTakesNoPart) {
  PushedConfiguration pushed;
  pushed.method = Method::kManual;
  EXPECT_FALSE(translate(pushed).isUsable);
  pushed.servers = {"gopher://h:70", "good:1"};
  EXPECT_FALSE(translate(pushed).isUsable);
}

TEST(Translate, AGeneratedScriptAtTheLimitIsUsedAndOnePastItIsNot) {
  PushedConfiguration pushed;
  pushed.method = Method::kManual;
  pushed.servers = {"proxy.example:3128"};
  pushed.excludes.assign(63, std::string(8000, 'a'));
  auto& last = pushed.excludes.emplace_back(1000, 'a');
  const auto shorter = translate(pushed).script.size();
  ASSERT_LT(kMaxScriptBytes - shorter, 7000U);
  last += std::string(kMaxScriptBytes - shorter, 'a');
  EXPECT_TRUE(translate(pushed).isUsable);
  EXPECT_EQ(translate(pushed).script.size(), kMaxScriptBytes);
  last += 'a';
  EXPECT_FALSE(translate(pushed).isUsable);
  EXPECT_TRUE(translate(pushed).script.empty());
}

TEST(NetworkSet, OnlyItsSenderDestroysAConfiguration) {
  NetworkSet set;
  const auto number = set.add(wpadOn("eth0"), ":1.1");
  ASSERT_TRUE(number);
  EXPECT_FALSE(set.remove(*number, ":1.2"));
  EXPECT_EQ(set.all().size(), 1U);
  EXPECT_TRUE(set.remove(*number, ":1.1"));
  EXPECT_TRUE(set.all().empty());
}

TEST(NetworkSet, ANumberIsNeverUsedAgain) {
  NetworkSet set;
  const auto first = set.add(wpadOn("eth0"), ":1.1");
  set.remove(*first, ":1.1");
  EXPECT_NE(set.add(wpadOn("eth0"), ":1.1"), first);
}

TEST(NetworkSet, ASenderThatGoesTakesItsConfigurationsAlong) {
  NetworkSet set;
  set.add(wpadOn("eth0"), ":1.1");
  set.add(wpadOn("eth1"), ":1.1");
  set.add(wpadOn("eth2"), ":1.2");
  EXPECT_EQ(set.removeSender(":1.1"), 2U);
  EXPECT_EQ(set.all().size(), 1U);
}

TEST(NetworkSet, ASenderMayHaveItsShareAndNotOneMore) {
  NetworkSet set;
  for (std::size_t i = 0; i < kMaxOfSender; i++) ASSERT_TRUE(set.add(wpadOn("e"), ":1.1"));
  EXPECT_FALSE(set.add(wpadOn("e"), ":1.1"));
  EXPECT_TRUE(set.add(wpadOn("e"), ":1.2"));
}

TEST(NetworkSet, AllSendersTogetherMayHaveTheirShareAndNotOneMore) {
  NetworkSet set;
  for (std::size_t i = 0; i < kMaxConfigurations; i++) {
    ASSERT_TRUE(set.add(wpadOn("e"), ":1." + std::to_string(i / kMaxOfSender)));
  }
  EXPECT_FALSE(set.add(wpadOn("e"), ":1.99"));
}

using Metrics = std::map<std::string, std::uint32_t>;

std::string heldInterface(const NetworkSet& set, const Metrics& metrics, bool direct = false) {
  DefaultRoutes routes;
  for (const auto& [interface, metric] : metrics) routes[interface].metric = metric;
  const auto* held = holding(set, routes, direct);
  return held == nullptr ? "none" : held->interface;
}

TEST(Holding, TheDefaultRouteWithTheLowestMetricDecides) {
  NetworkSet set;
  set.add(wpadOn("wlan0"), ":1.1");
  set.add(wpadOn("eth0"), ":1.1");
  EXPECT_EQ(heldInterface(set, {{"eth0", 100}, {"wlan0", 600}}), "eth0");
  EXPECT_EQ(heldInterface(set, {{"eth0", 700}, {"wlan0", 600}}), "wlan0");
  EXPECT_EQ(heldInterface(set, {{"wlan0", 600}}), "wlan0");
  EXPECT_EQ(heldInterface(set, {}), "none");
}

TEST(Holding, OfOneInterfaceTheNewestHolds) {
  NetworkSet set;
  set.add(wpadOn("eth0"), ":1.1");
  const auto newest = set.add(wpadOn("eth0"), ":1.1");
  EXPECT_EQ(holding(set, {{"eth0", {1, {}}}}, false)->number, newest);
}

TEST(Holding, OneWithAScriptIsSkippedIfScriptsCannotBeServed) {
  NetworkSet set;
  const auto other = set.add(wpadOn("wlan0"), ":1.1");
  auto withScript = wpadOn("eth0");
  withScript.script = "function FindProxyForURL(url, host) {}";
  const auto scripted = set.add(withScript, ":1.1");
  const DefaultRoutes routes{{"eth0", {100, {}}}, {"wlan0", {600, {}}}};
  EXPECT_EQ(holding(set, routes, false, true)->number, scripted);
  EXPECT_EQ(holding(set, routes, false, false)->number, other);
}

TEST(Holding, OneWithoutAnInterfaceRanksLast) {
  NetworkSet set;
  set.add(wpadOn("eth0"), ":1.1");
  set.add(wpadOn(""), ":1.1");
  EXPECT_EQ(heldInterface(set, {{"eth0", 4294967295U}}), "eth0");
  EXPECT_EQ(heldInterface(set, {}), "");
}

TEST(Holding, DirectCountsOnlyIfItIsAsked) {
  NetworkSet set;
  set.add(directOn("eth0"), ":1.1");
  set.add(wpadOn("wlan0"), ":1.1");
  const Metrics routes{{"eth0", 100}, {"wlan0", 600}};
  EXPECT_EQ(heldInterface(set, routes), "wlan0");
  EXPECT_EQ(heldInterface(set, routes, true), "eth0");
}

TEST(Paths, AreReadBackAndNothingElseIs) {
  EXPECT_EQ(numberOfPath(pathOfNumber(17)), 17U);
  for (const char* wrong : {"/org/pacrunner/configuration", "/org/pacrunner/configuration01",
                            "/org/pacrunner/configuration-1", "/org/pacrunner/configuration1x",
                            "/org/pacrunner/configuration99999999999999999999", "/"}) {
    EXPECT_EQ(numberOfPath(wrong), std::nullopt) << wrong;
  }
}

}  // namespace
