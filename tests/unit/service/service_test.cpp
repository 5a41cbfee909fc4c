#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fetcher/pac_fetcher.h"
#include "pac/pac_parser.h"
#include "service/proxy_manager_service_impl.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"
#include "tests/support/private_bus.h"

namespace {

// This must be the first base class, because the new root needs a process that has only one thread.
struct OwnRoot {
  OwnRoot() { enterOwnRoot(); }
};

class Service : private OwnRoot, public testing::Test {
 protected:
  PrivateBus mBus;
  ProxyManagerServiceImpl mService;
};

using Texts = std::vector<std::string>;

TEST_F(Service, BeforeItsStartANewFileFindsNoParser) {
  clearLog();
  mService.pacFileUpdated();
  EXPECT_EQ(
      logLines(),
      (std::vector<LogLine>{
          {LOG_NOTICE, "ProxyManagerServiceImpl-pacFileUpdated pacFileName:/tmp/proxymanager.pac"},
          {LOG_ERR,
           "ProxyManagerServiceImpl-pacFileUpdated pacparser is null pacFileName:"
           "/tmp/proxymanager.pac"}}));
}

TEST_F(Service, BeforeItsStartItAnswersWithoutAScript) {
  EXPECT_EQ(mService.getProxyUrl("http://a/"), (Texts{"off", ""}));
  EXPECT_EQ(mService.updateProxyConfig("wpad", "", "", false, "", ""), 0);
  EXPECT_EQ(mService.getProxyUrl("http://a/"), Texts{"wpad"});
}

TEST_F(Service, ASecondStartSaysThatItsThreadRuns) {
  mService.start();
  ASSERT_TRUE(waitForLog(LOG_INFO, "ProxyManagerServiceImpl-startupEventThreadFunc called "));
  mService.start();
  EXPECT_TRUE(logged(LOG_INFO, "ProxyManagerServiceImpl-start pac process thread already started"));
  EXPECT_EQ(countLog(LOG_INFO, "ProxyManagerServiceImpl-startupEventThreadFunc called "), 1);
}

TEST_F(Service, ItStartsAgainAfterItsStop) {
  mService.start();
  mService.stop();
  clearLog();
  mService.start();
  EXPECT_TRUE(waitForLog(LOG_INFO, "ProxyManagerServiceImpl-startupEventThreadFunc called "));
}

TEST_F(Service, SaysWhenTheContentIsNew) {
  clearLog();
  mService.pacContentUpdated();
  EXPECT_EQ(logLines(),
            (std::vector<LogLine>{
                {LOG_NOTICE,
                 "ProxyManagerServiceImpl-pacContentUpdated pacFileName:/tmp/proxymanager.pac"}}));
}

// Asks over the bus, from a separate connection.
std::vector<std::string> askedOverTheBus() {
  DBus::BusDispatcher loop;
  auto* const own = std::exchange(DBus::default_dispatcher, &loop);
  std::vector<std::string> texts;
  {
    DBus::Connection client(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true);
    client.register_bus();
    DBus::CallMessage call("com.zentu.ProxyManagerService", "/com/zentu/ProxyManagerService",
                           "com.zentu.ProxyManagerServiceInterface", "getProxyurl");
    call.writer().append_string("http://a/");
    const DBus::Message reply = client.send_blocking(call, 20'000);
    for (auto text = reply.reader().recurse(); !text.at_end(); ++text) {
      texts.emplace_back(text.get_string());
    }
  }
  DBus::default_dispatcher = own;
  return texts;
}

TEST_F(Service, StartedAgainAfterItsStopItAnswersOnTheBusAgain) {
  for (int i = 0; i < 2; ++i) {
    mService.start();
    EXPECT_EQ(askedOverTheBus(), (Texts{"off", ""})) << "without a service it is off alone";
    mService.stop();
    EXPECT_THROW(askedOverTheBus(), DBus::Error) << "the name is free";
  }
}

}  // namespace
