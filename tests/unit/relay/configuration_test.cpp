#include "relay/configuration.h"

#include <gtest/gtest.h>

#include <string>

using namespace relay;

namespace {

std::string problemOf(const std::string& text) {
  const auto read = readConfiguration(text);
  if (read.problems.size() != 1) return std::to_string(read.problems.size()) + " problems";
  return std::to_string(read.problems[0].line) + ": " + read.problems[0].text;
}

TEST(RelayConfiguration, HasTheLimitsThatItsPageNames) {
  const auto [configuration, problems] = readConfiguration("");
  EXPECT_TRUE(problems.empty());
  EXPECT_EQ(configuration.headTime, std::chrono::seconds{60});
  EXPECT_EQ(configuration.idleTime, std::chrono::hours{1});
  EXPECT_EQ(configuration.keptTime, std::chrono::seconds{60});
  EXPECT_EQ(configuration.connectTime, std::chrono::seconds{10});
  EXPECT_EQ(configuration.penaltyTime, std::chrono::minutes{5});
  EXPECT_EQ(configuration.maxConnections, 4096U);
  EXPECT_EQ(configuration.maxConnectionsOfUser, 1024U);
}

TEST(RelayConfiguration, ReadsEveryKey) {
  const auto read = readConfiguration(R"(# a comment
when-no-answer = "refuse"
allow-ports = [443, "8000-8999"]
allow-from = ["192.0.2.0/24", "2001:db8::/32"]
allow-users = ["me", "@staff"]
deny-users = ["guest"]
credentials-for = ["@staff"]
credentials-file = "/etc/proxymanager/relay.credentials"
credentials-hosts = ["proxy.example:3128"]
max-connections = 100
max-connections-of-user = 10
head-time = "5s"
connect-time = "2s"
idle-time = "2h"
kept-time = "10s"
penalty-time = "1m"
log-requests = true
)");
  EXPECT_TRUE(read.problems.empty());
  const auto& configuration = read.configuration;
  EXPECT_EQ(configuration.whenNoAnswer, NoAnswer::kRefuse);
  EXPECT_EQ(configuration.allowPorts, (std::vector<PortRange>{{443, 443}, {8000, 8999}}));
  EXPECT_EQ(configuration.allowFrom.size(), 2U);
  EXPECT_EQ(configuration.allowUsers, (std::vector<std::string>{"me", "@staff"}));
  EXPECT_FALSE(configuration.credentialsForAll);
  EXPECT_EQ(configuration.maxConnections, 100U);
  EXPECT_EQ(configuration.idleTime, std::chrono::hours{2});
  EXPECT_TRUE(configuration.logRequests);
}

TEST(RelayConfiguration, OfAnEmptyTextIsTheDefault) {
  const auto read = readConfiguration("");
  EXPECT_TRUE(read.problems.empty());
  EXPECT_EQ(read.configuration, Configuration());
  EXPECT_EQ(Configuration().maxConnections, 4096U);
  EXPECT_EQ(Configuration().maxConnectionsOfUser, 1024U);
}

TEST(RelayConfiguration, NamesTheLineOfAProblem) {
  EXPECT_EQ(problemOf("\ndeny-user = [\"x\"]\n"), "2: deny-user is not a known key");
  EXPECT_EQ(problemOf("deny-users = \"x\"\n"), "1: deny-users must be a list of users and @groups");
  EXPECT_EQ(problemOf("deny-users = [\"@\"]\n"),
            "1: deny-users must be a list of users and @groups");
  EXPECT_EQ(problemOf("when-no-answer = \"maybe\"\n"),
            "1: when-no-answer must be \"direct\" or \"refuse\"");
  for (const char* text :
       {"allow-ports = [0]", "allow-ports = [65536]", "allow-ports = [\"9-8\"]",
        "allow-from = [\"192.0.2.0/33\"]", "max-connections = 0", "max-connections = 65537",
        "head-time = \"0s\"", "head-time = \"25h\"", "head-time = 60", "credentials-file = \"x\"",
        "log-requests = 1", "a ="}) {
    EXPECT_NE(problemOf(text), "0 problems") << text;
  }
}

TEST(RelayConfiguration, HasListsOfAtMost256Values) {
  std::string list = "allow-ports = [1";
  for (std::size_t count = 1; count < kMaxListValues; count++) list += ", 1";
  EXPECT_EQ(problemOf(list + "]"), "0 problems");
  EXPECT_EQ(problemOf(list + ", 1]"), "1: allow-ports has more than 256 values");
}

TEST(RelayConfiguration, HasAtMost64KiB) {
  EXPECT_EQ(problemOf("#" + std::string(kMaxFileBytes - 1, 'x')), "0 problems");
  EXPECT_NE(problemOf("#" + std::string(kMaxFileBytes, 'x')), "0 problems");
}

TEST(RelayCredentials, AreReadByHostAndNoProblemShowsAPassword) {
  const auto read = readCredentials("[\"Proxy.example:3128\"]\nuser = \"me\"\npassword = \"x\"\n");
  ASSERT_EQ(read.byHost.size(), 1U);
  EXPECT_EQ(read.byHost[0].first, "proxy.example:3128");
  EXPECT_EQ(read.byHost[0].second, (Credentials{"me", "x"}));
  for (const char* text : {"[a]\nuser = \"me\"\n", "[a]\nuser=\"u\"\npassword=\"secret\"\nmore=1\n",
                           "password = \"secret\"\n", "[a]\npassword = secret"}) {
    const auto broken = readCredentials(text);
    ASSERT_EQ(broken.problems.size(), 1U) << text;
    EXPECT_EQ(broken.problems[0].text.find("secret"), std::string::npos);
  }
}

TEST(Network, HasTheAddressesOfItsPrefix) {
  const auto has = [](const char* network, const char* address) {
    Network net;
    Network one;
    EXPECT_TRUE(readNetwork(network, net)) << network;
    EXPECT_TRUE(readNetwork(address, one)) << address;
    return contains(net, one.address);
  };
  EXPECT_TRUE(has("192.0.2.0/25", "192.0.2.127"));
  EXPECT_FALSE(has("192.0.2.0/25", "192.0.2.128"));
  EXPECT_TRUE(has("0.0.0.0/0", "203.0.113.9"));
  EXPECT_FALSE(has("0.0.0.0/0", "2001:db8::1"));
  EXPECT_TRUE(has("2001:db8::/32", "2001:db8:ffff::1"));
  EXPECT_TRUE(has("192.0.2.1", "192.0.2.1"));
  Network none;
  for (const char* text : {"", "192.0.2.0/", "192.0.2.0/33", "::/129", "a/8", "1.2.3/8"}) {
    EXPECT_FALSE(readNetwork(text, none)) << text;
  }
}

}  // namespace
