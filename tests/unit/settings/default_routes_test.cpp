#include "settings/default_routes.h"

#include <gtest/gtest.h>

using namespace settings;

namespace {

constexpr char kIpv4[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
    "eth0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
    "wlan0\t00000000\t010200C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
    "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
    "down0\t00000000\t010200C0\t0002\t0\t0\t1\t00000000\t0\t0\t0\n"
    "dead0\t00000000\t00000000\t0201\t0\t0\t1\t00000000\t0\t0\t0\n";

constexpr char kIpv6[] =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "fe800000000000000000000000000001 00000064 00000001 00000000 00000003     eth1\n"
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n";

TEST(DefaultRoutes, AreReadFromTheKernelsTables) {
  DefaultRoutes routes;
  addIpv4DefaultRoutes(kIpv4, routes);
  addIpv6DefaultRoutes(kIpv6, routes);
  EXPECT_EQ(routes, (DefaultRoutes{{"eth0", {100, "010200C0 "}},
                                   {"eth1", {100, "fe800000000000000000000000000001 "}},
                                   {"wlan0", {600, "010200C0 "}}}));
}

TEST(DefaultRoutes, OfOneInterfaceTheLowerMetricCounts) {
  DefaultRoutes routes{{"eth1", {50, {}}}};
  addIpv6DefaultRoutes(kIpv6, routes);
  EXPECT_EQ(routes.at("eth1").metric, 50U);
}

// The next network can have the same interface and the same metric.
TEST(DefaultRoutes, AnotherGatewayIsAChange) {
  DefaultRoutes before, after;
  addIpv4DefaultRoutes(kIpv4, before);
  std::string other = kIpv4;
  other.replace(other.find("010200C0"), 8, "020200C0");
  addIpv4DefaultRoutes(other, after);
  EXPECT_NE(before, after);
}

TEST(DefaultRoutes, LinesThatCannotBeReadAreSkipped) {
  DefaultRoutes routes;
  addIpv4DefaultRoutes("eth0\t00000000\nx\t00000000\t0\tzz\t0\t0\t1\t00000000\n\n\t\t\n", routes);
  addIpv6DefaultRoutes("00 00\n", routes);
  EXPECT_TRUE(routes.empty());
}

}  // namespace
