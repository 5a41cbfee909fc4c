// Tests with the routes of a real kernel, in a network namespace that the test makes.
#include "settings/default_routes.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdlib>
#include <string>
#include <thread>

using namespace settings;

namespace {

/// Runs shell commands in a new network that has the interfaces "one" and "two". @return the
/// default routes after that
DefaultRoutes routesAfter(const std::string& commands) {
  DefaultRoutes routes;
  // Only this thread, and the commands that it starts, are in the new network.
  std::thread([&] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    const std::string links =
        "set -e\n"
        "for name in one two; do\n"
        "  ip link add $name type veth peer name $name-peer\n"
        "  ip link set $name-peer up\n"
        "  ip link set $name up\n"
        "done\n"
        "ip address add 192.0.2.9/24 dev one\n"
        "ip address add 198.51.100.9/24 dev two\n";
    ASSERT_EQ(std::system((links + commands).c_str()), 0) << commands;
    const auto read = readDefaultRoutes();
    ASSERT_TRUE(read);
    routes = *read;
  }).join();
  return routes;
}

std::string gateway(std::string bytes) {
  return bytes + " ";
}

TEST(DefaultRoutes, OfBothFamiliesAreListedWithTheirMetrics) {
  EXPECT_EQ(routesAfter("ip route add default via 192.0.2.1 metric 100\n"
                        "ip -6 route add default dev two metric 600\n"
                        "ip route add 203.0.113.0/24 via 198.51.100.1\n"
                        "ip route add unreachable default metric 1\n"),
            (DefaultRoutes{{"one", {100, gateway(std::string("\xc0\x00\x02\x01", 4))}},
                           {"two", {600, " "}}}));
}

TEST(DefaultRoutes, OfOneInterfaceTheLowerMetricCounts) {
  const auto routes = routesAfter(
      "ip route add default via 192.0.2.1 metric 100\nip route add default via 192.0.2.2 metric 50\n");
  ASSERT_EQ(routes.size(), 1U);
  EXPECT_EQ(routes.at("one").metric, 50U);
}

// Another network can have the same interface and the same metric, but another gateway.
TEST(DefaultRoutes, AnotherGatewayIsAChange) {
  EXPECT_NE(routesAfter("ip route add default via 192.0.2.1\n"),
            routesAfter("ip route add default via 192.0.2.2\n"));
}

// Tunnels and routing policies use other tables. A default route there has an effect only if a
// routing rule selects its table.
TEST(DefaultRoutes, OfOtherTablesDoNotCount) {
  EXPECT_TRUE(routesAfter("ip route add default dev one table 100\n"
                          "ip -6 route add default dev two table 100\n"
                          "ip -6 route add default dev one table 70000\n")
                  .empty());
}

TEST(DefaultRoutes, WithSeveralNextHopsCountForEachThatIsNotDead) {
  const std::string both =
      "ip route add default metric 7 nexthop via 192.0.2.1 nexthop via 198.51.100.1\n";
  const auto routes = routesAfter(both);
  ASSERT_EQ(routes.size(), 2U);
  EXPECT_EQ(routes.at("two").metric, 7U);
  EXPECT_EQ(routes.at("two").gateways, gateway("\xc6\x33\x64\x01"));
  const auto left = routesAfter(both + "ip link set two down\n");
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left.begin()->first, "one");
  EXPECT_EQ(routesAfter(
                "ip -6 route add default nexthop via fe80::1 dev one nexthop via fe80::2 dev two\n")
                .size(),
            2U);
}

TEST(DefaultRoutes, AreFoundInAListOfManyMessages) {
  const auto routes = routesAfter(
      "ip route add default via 192.0.2.1 metric 9\n"
      "for number in $(seq 1 800); do\n"
      "  echo route add 10.$((number / 200)).$((number % 200)).0/24 via 192.0.2.1\n"
      "done | ip -batch -\n"
      "ip -6 route add default dev two metric 5\n");
  EXPECT_EQ(routes.size(), 2U);
}

TEST(RouteSocket, ReportsDefaultRoutesAndLinksButNoOtherRoutes) {
  std::thread([] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    const auto run = [](const char* command) { ASSERT_EQ(std::system(command), 0) << command; };
    run("ip link set lo up");
    const auto socket = openRouteSocket();
    ASSERT_TRUE(socket);
    EXPECT_FALSE(drainRouteSocket(socket.get()));
    run("ip route add 203.0.113.7/32 dev lo");
    EXPECT_FALSE(drainRouteSocket(socket.get()));
    for (const char* command : {"ip route add default dev lo", "ip route delete default",
                                "ip -6 route add default dev lo", "ip link set lo down"}) {
      run(command);
      EXPECT_TRUE(drainRouteSocket(socket.get())) << command;
    }
    // There are more changes than the kernel keeps for the socket. A lost message may concern a
    // default route.
    run("for i in $(seq 250); do for j in $(seq 10); do"
        " echo route add unreachable 203.0.$j.$i/32; done; done | ip -batch -");
    EXPECT_TRUE(drainRouteSocket(socket.get()));
  }).join();
}

TEST(DefaultRoutes, AreNoneInANetworkWithoutThem) {
  EXPECT_TRUE(routesAfter("").empty());
}

}  // namespace
