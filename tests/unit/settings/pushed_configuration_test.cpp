// Tests the reading of CreateProxyConfiguration's dictionary from real messages.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <memory>

#include "base/unique_fd.h"
#include "settings/daemon_link.h"
#include "settings/pacrunner.h"

using namespace settings;

namespace {

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

class PushedDictionary : public testing::Test {
 protected:
  void SetUp() override {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    mOther = base::UniqueFd(pair[1]);
    sd_bus* bus = nullptr;
    ASSERT_GE(sd_bus_new(&bus), 0);
    mBus.reset(bus);
    ASSERT_GE(sd_bus_set_fd(bus, pair[0], pair[0]), 0);
    ASSERT_GE(sd_bus_start(bus), 0);
  }

  /// Reads the dictionary that `fill` writes.
  int read(const std::function<int(sd_bus_message*)>& fill) {
    sd_bus_message* message = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(mBus.get(), &message, "a.b", "/", "a.b", "C"), 0);
    const BusMessage owned(message);
    EXPECT_GE(sd_bus_message_open_container(message, 'a', "{sv}"), 0);
    EXPECT_GE(fill(message), 0);
    EXPECT_GE(sd_bus_message_close_container(message), 0);
    EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
    mPushed = {};
    mProblem.clear();
    return readPushed(message, mPushed, mProblem);
  }

  std::unique_ptr<sd_bus, BusCloser> mBus;
  base::UniqueFd mOther;
  PushedConfiguration mPushed;
  std::string mProblem;
};

int text(sd_bus_message* message, const char* key, const char* value) {
  return sd_bus_message_append(message, "{sv}", key, "s", value);
}

TEST_F(PushedDictionary, HoldsWhatANetworkManagerSends) {
  EXPECT_EQ(read([](sd_bus_message* message) {
              text(message, "Interface", "eth0");
              text(message, "Method", "auto");
              text(message, "URL", "http://h/p.pac");
              text(message, "Script", "var a;");
              sd_bus_message_append(message, "{sv}", "BrowserOnly", "b", 1);
              return sd_bus_message_append(message, "{sv}", "Domains", "as", 1, "example.org");
            }),
            0);
  EXPECT_EQ(mPushed.method, PushedConfiguration::Method::kAuto);
  EXPECT_EQ(mPushed.interface, "eth0");
  EXPECT_EQ(mPushed.url, "http://h/p.pac");
  EXPECT_EQ(mPushed.script, "var a;");
}

TEST_F(PushedDictionary, HoldsListsOfAManualOne) {
  EXPECT_EQ(read([](sd_bus_message* message) {
              sd_bus_message_append(message, "{sv}", "Servers", "as", 2, "a:1", "b:2");
              sd_bus_message_append(message, "{sv}", "Excludes", "as", 1, "x");
              return text(message, "Method", "manual");
            }),
            0);
  EXPECT_EQ(mPushed.servers, (std::vector<std::string>{"a:1", "b:2"}));
  EXPECT_EQ(mPushed.excludes, std::vector<std::string>{"x"});
}

TEST_F(PushedDictionary, UnknownKeysAndOtherTypesAreSkipped) {
  EXPECT_EQ(read([](sd_bus_message* message) {
              sd_bus_message_append(message, "{sv}", "URL", "i", 7);
              sd_bus_message_append(message, "{sv}", "Servers", "s", "a:1");
              sd_bus_message_append(message, "{sv}", "Nonsense", "(si)", "x", 1);
              return text(message, "Method", "direct");
            }),
            0);
  EXPECT_TRUE(mPushed.url.empty());
  EXPECT_TRUE(mPushed.servers.empty());
}

TEST_F(PushedDictionary, AMissingOrUnknownMethodIsRefused) {
  EXPECT_EQ(read([](sd_bus_message*) { return 0; }), 1);
  EXPECT_EQ(read([](sd_bus_message* message) { return text(message, "Method", "Auto"); }), 1);
  EXPECT_EQ(read([](sd_bus_message* message) {
              return sd_bus_message_append(message, "{sv}", "Method", "b", 1);
            }),
            1);
}

TEST_F(PushedDictionary, AScriptAtTheLimitIsTakenAndOnePastItIsRefused) {
  const auto push = [&](std::size_t bytes) {
    const std::string script(bytes, ' ');
    return read([&](sd_bus_message* message) {
      text(message, "Script", script.c_str());
      return text(message, "Method", "auto");
    });
  };
  EXPECT_EQ(push(kMaxScriptBytes), 0);
  EXPECT_EQ(push(kMaxScriptBytes + 1), 1);
  EXPECT_EQ(mProblem, "a text is too long");
}

TEST_F(PushedDictionary, AListIsCutAtItsLimit) {
  read([](sd_bus_message* message) {
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append(message, "s", "Servers");
    sd_bus_message_open_container(message, 'v', "as");
    sd_bus_message_open_container(message, 'a', "s");
    for (std::size_t i = 0; i <= kMaxListEntries; i++) sd_bus_message_append(message, "s", "a:1");
    for (int i = 0; i < 3; i++) sd_bus_message_close_container(message);
    return text(message, "Method", "manual");
  });
  EXPECT_EQ(mPushed.servers.size(), kMaxListEntries);
}

}  // namespace
