#include "platform/netservice/lease_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/own_root.h"

namespace fs = std::filesystem;

namespace {

using netservice::KeptLease;
using netservice::LeaseStore;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kFolder[] = "/run/store";
constexpr char kHead[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const std::string& interface, int metric, const std::string& flags = "0003",
                  const std::string& mask = "00000000") {
  return interface + "\t00000000\t0101A8C0\t" + flags + "\t0\t0\t" + std::to_string(metric) + "\t" +
         mask + "\t0\t0\t0   \n";
}

TEST(DefaultRouteInterfaces, AreOrderedByMetric) {
  EXPECT_THAT(netservice::defaultRouteInterfaces(kHead + route("wlan0", 600) + route("eth0", 100) +
                                                 route("eth1", 100)),
              ElementsAre("eth0", "eth1", "wlan0"));
}

TEST(DefaultRouteInterfaces, AreOfRoutesThatCarryEverything) {
  EXPECT_THAT(
      netservice::defaultRouteInterfaces(kHead + route("half0", 0, "0003", "00000080") +
                                         route("down0", 0, "0002") + route("reject0", 0, "0201") +
                                         "eth0\t000000C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\n"),
      IsEmpty());
  EXPECT_THAT(netservice::defaultRouteInterfaces(""), IsEmpty());
  EXPECT_THAT(netservice::defaultRouteInterfaces("eth0 what else\n\n"), IsEmpty());
}

std::string inForce(const std::vector<KeptLease>& leases, const std::vector<std::string>& routes) {
  const KeptLease* lease = netservice::leaseInForce(leases, routes);
  return lease != nullptr ? lease->interface : "none";
}

TEST(LeaseInForce, IsThatOfTheBestDefaultRouteThatHasOne) {
  const std::vector<KeptLease> leases{
      {"eth0", "", {1, 0}}, {"eth1", "", {2, 0}}, {"eth2", "", {3, 0}}};
  EXPECT_EQ(inForce(leases, {"eth0", "eth1"}), "eth0");
  EXPECT_EQ(inForce(leases, {"eth1", "eth0"}), "eth1");
  EXPECT_EQ(inForce(leases, {"tun0", "eth1"}), "eth1");
}

TEST(LeaseInForce, IsWithoutADefaultRouteTheOneThatChangedLast) {
  const std::vector<KeptLease> leases{
      {"eth0", "", {1, 5}}, {"eth1", "", {1, 9}}, {"eth2", "", {1, 0}}};
  EXPECT_EQ(inForce(leases, {}), "eth1");
  EXPECT_EQ(inForce(leases, {"tun0"}), "eth1");
  EXPECT_EQ(inForce({}, {"eth0"}), "none");
}

TEST(InterfaceNames, AreThoseThatTheKernelTakesAndNoPath) {
  for (const char* name : {"lo", "eth0", "br-1a2b", "eth0.12", "wlp2s0", "123456789012345"}) {
    EXPECT_TRUE(netservice::isInterfaceName(name)) << name;
  }
  for (const char* name :
       {"", ".", "..", ".new", "a/b", "../x", "a b", "a\n", "1234567890123456"}) {
    EXPECT_FALSE(netservice::isInterfaceName(name)) << name;
  }
}

class Store : public testing::Test {
 protected:
  void SetUp() override { enterOwnRoot(); }

  // The loopback interface exists everywhere. `other` does not exist, but its lease is kept.
  static std::vector<std::string> kept(LeaseStore& store, const std::string& other) {
    std::vector<std::string> found;
    for (const auto& lease : store.leases(other))
      found.push_back(lease.interface + "=" + lease.text);
    std::sort(found.begin(), found.end());
    return found;
  }
};

TEST_F(Store, KeepsALeaseForEachInterface) {
  LeaseStore store(kFolder);
  ASSERT_EQ(store.open(), 0);
  EXPECT_EQ(store.keep("lo", "first"), 0);
  EXPECT_EQ(store.keep("none0", "second"), 0);
  EXPECT_EQ(store.keep("lo", "third"), 0);
  EXPECT_THAT(kept(store, "none0"), ElementsAre("lo=third", "none0=second"));
  EXPECT_EQ(store.forget("lo"), 0);
  EXPECT_EQ(store.forget("lo"), ENOENT);
  EXPECT_THAT(kept(store, "none0"), ElementsAre("none0=second"));
  struct stat status {};
  ASSERT_EQ(stat("/run/store/leases/none0", &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0644U);
}

TEST_F(Store, ForgetsInterfacesThatDoNotExistAnyMore) {
  LeaseStore store(kFolder);
  ASSERT_EQ(store.open(), 0);
  EXPECT_EQ(store.keep("none0", "text"), 0);
  EXPECT_EQ(store.keep("lo", "text"), 0);
  EXPECT_THAT(kept(store, "lo"), ElementsAre("lo=text"));
  EXPECT_FALSE(fs::exists("/run/store/leases/none0"));
}

TEST_F(Store, LeavesALeaseWithTheSameTextAsOldAsItIs) {
  LeaseStore store(kFolder);
  ASSERT_EQ(store.open(), 0);
  EXPECT_EQ(store.keep("lo", "text"), 0);
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(1);
  fs::last_write_time("/run/store/leases/lo", old);
  EXPECT_EQ(store.keep("lo", "text"), 0);
  EXPECT_LT(fs::last_write_time("/run/store/leases/lo") - old, std::chrono::seconds(1));
  EXPECT_EQ(store.keep("lo", "other"), 0);
  EXPECT_GT(fs::last_write_time("/run/store/leases/lo") - old, std::chrono::minutes(30));
}

TEST_F(Store, LeavesOutWhatIsNoLease) {
  LeaseStore store(kFolder);
  ASSERT_EQ(store.open(), 0);
  fs::create_symlink("/etc/passwd", "/run/store/leases/lo");
  std::ofstream("/run/store/leases/.new") << "half of one";
  EXPECT_THAT(kept(store, "lo"), IsEmpty());
  // keep() also replaces the link by a lease.
  EXPECT_EQ(store.keep("lo", "text"), 0);
  EXPECT_THAT(kept(store, "lo"), ElementsAre("lo=text"));
}

TEST_F(Store, DoesNotUseAnotherUsersFolder) {
  ASSERT_EQ(mkdir(kFolder, 0777), 0);
  ASSERT_EQ(chown(kFolder, 65534, 65534), 0);
  EXPECT_EQ(LeaseStore(kFolder).open(), EPERM);
}

TEST_F(Store, DoesNotFollowALinkToItsFolder) {
  ASSERT_EQ(mkdir("/run/elsewhere", 0755), 0);
  fs::create_symlink("/run/elsewhere", kFolder);
  EXPECT_EQ(LeaseStore(kFolder).open(), ENOTDIR);
}

TEST_F(Store, IsOneProcessesAtATime) {
  auto first = std::make_unique<LeaseStore>(kFolder);
  ASSERT_EQ(first->open(), 0);
  LeaseStore impatient(kFolder, milliseconds(50));
  EXPECT_EQ(impatient.open(), ETIMEDOUT);
  int trouble = -1;
  std::thread other([&] { trouble = LeaseStore(kFolder, std::chrono::minutes(1)).open(); });
  first.reset();
  other.join();
  EXPECT_EQ(trouble, 0);
}

}  // namespace
