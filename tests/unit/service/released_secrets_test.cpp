// Checks what remains of a password in the texts that the daemon releases. The messages of the bus
// library are not checked, because its buffers cannot be overwritten.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "service/proxy_manager_service_impl.h"
#include "tests/support/own_root.h"
#include "tests/support/private_bus.h"
#include "tests/unit/service/released_blocks.h"

namespace {

// Longer than a text that a std::string stores without an allocation.
constexpr const char* kPassword = "correct-horse-battery-staple-of-the-test-with-no-equal";
constexpr const char* kUrl = "http://u:correct-horse-battery-staple-of-the-test-with-no-equal@p:1";

// This must be the first base class, because the new root needs a process that has only one thread.
struct OwnRoot {
  OwnRoot() { enterOwnRoot(); }
};

class ReleasedSecrets : private OwnRoot, public testing::Test {
 protected:
  void SetUp() override { mService.start(); }

  // Calls over a separate connection, and makes no std::string of the password.
  static void call(const char* member, std::array<const char*, 5> texts) {
    DBus::BusDispatcher loop;
    auto* const own = std::exchange(DBus::default_dispatcher, &loop);
    {
      DBus::Connection client(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true);
      client.register_bus();
      DBus::CallMessage call("com.zentu.ProxyManagerService", "/com/zentu/ProxyManagerService",
                             "com.zentu.ProxyManagerServiceInterface", member);
      if (texts.front() != nullptr) {
        DBus::MessageIter writer = call.writer();
        for (std::size_t i = 0; i < 3; ++i) writer.append_string(texts[i]);
        writer.append_bool(true);
        for (std::size_t i = 3; i < 5; ++i) writer.append_string(texts[i]);
      }
      client.send_blocking(call, 20'000);
    }
    DBus::default_dispatcher = own;
  }

  PrivateBus mBus;
  ProxyManagerServiceImpl mService;
};

TEST_F(ReleasedSecrets, HoldNoPasswordAfterItWasHandedOverReadAndReplaced) {
  watchReleasedBlocks(kPassword);
  call("updateProxyconfig", {"manual", "p:1", "", "user", kPassword});
  call("getProxyconfig", {});
  call("updateProxyconfig", {"off", "", "", "", ""});
  EXPECT_GT(releasedBlocks(), 20);
  EXPECT_EQ(releasedBlocksWithText(), 0);
  mService.stop();
  watchReleasedBlocks(nullptr);
  EXPECT_EQ(releasedBlocksWithText(), 0);
}

// Log lines and the answers for programs contain a URL with its password, so only the configuration
// is checked.
TEST_F(ReleasedSecrets, HoldNoPasswordOfAUrlAfterItWasHandedOverReadAndReplaced) {
  watchReleasedBlocks(kPassword);
  call("updateProxyconfig", {"off", kUrl, kUrl, "", ""});
  call("updateProxyconfig", {"manual", kUrl, kUrl, "", ""});
  call("getProxyconfig", {});
  mService.stop();
  watchReleasedBlocks(nullptr);
  EXPECT_EQ(releasedBlocksWithText(), 0);
}

}  // namespace
