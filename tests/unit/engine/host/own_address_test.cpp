// Each test is a separate process with its own network, so the test controls the addresses.
#include "engine/host/own_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/unit/engine/own_network.h"

namespace {

using pac_engine::AddressFamily;
using pac_engine::ownAddresses;
using Texts = std::vector<std::string>;

/// Adds an interface that is up and has `address`. It is one end of a virtual cable, so that it has
/// a carrier.
void addInterface(const std::string& name, const std::string& address) {
  command("ip link add " + name + " type veth peer name " + name + "-far");
  command("sysctl -qw net.ipv6.conf." + name + "-far.disable_ipv6=1");
  command("ip addr add " + address + " dev " + name);
  command("ip link set " + name + "-far up && ip link set " + name + " up");
}

TEST(OwnAddress, IsNoneWithoutANetwork) {
  enterOwnNetwork();
  EXPECT_EQ(ownAddresses(AddressFamily::kIpv4), Texts());
  EXPECT_EQ(ownAddresses(AddressFamily::kAny), Texts());
}

TEST(OwnAddress, IsTheSourceOfTheRouteToTheOutside) {
  enterOwnNetwork();
  addInterface("one", "10.1.0.5/24");
  addInterface("two", "10.2.0.5/24");
  EXPECT_EQ(ownAddresses(AddressFamily::kIpv4), Texts());
  command("ip route add default via 10.2.0.1");
  EXPECT_EQ(ownAddresses(AddressFamily::kIpv4), Texts{"10.2.0.5"});
  command("ip route replace default via 10.1.0.1");
  EXPECT_EQ(ownAddresses(AddressFamily::kIpv4), Texts{"10.1.0.5"});
}

TEST(OwnAddress, SendsNothingToFindOut) {
  enterOwnNetwork();
  addInterface("one", "10.1.0.5/24");
  command("sysctl -qw net.ipv6.conf.one.disable_ipv6=1");
  command("ip route add default via 10.1.0.1");
  const auto before = sentPackets("one");
  for (int i = 0; i < 20; ++i) ownAddresses(AddressFamily::kIpv4);
  EXPECT_EQ(sentPackets("one"), before);
}

TEST(OwnAddress, ListsUsableAddressesOfBothFamilies) {
  enterOwnNetwork();
  addInterface("one", "10.1.0.5/24");
  command("ip addr add 169.254.7.7/16 dev one && ip -6 addr add 2001:db8::5/64 dev one nodad");
  addInterface("off", "10.3.0.5/24");
  command("ip link set off down");
  EXPECT_EQ(ownAddresses(AddressFamily::kAny), (Texts{"10.1.0.5", "2001:db8::5"}));
}

TEST(OwnAddress, ListsSixtyFourAtMost) {
  enterOwnNetwork();
  addInterface("one", "10.1.0.1/24");
  command("sysctl -qw net.ipv6.conf.one.disable_ipv6=1");
  command("for i in $(seq 2 64); do ip addr add 10.1.0.$i/24 dev one; done");
  EXPECT_EQ(ownAddresses(AddressFamily::kAny).size(), 64U);
  command("ip addr add 10.1.0.65/24 dev one");
  EXPECT_EQ(ownAddresses(AddressFamily::kAny).size(), 64U);
}

}  // namespace
