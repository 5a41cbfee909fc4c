#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "dbus/proxy_manager_dbus_handler.h"
#include "dbus/valid_text.h"
#include "fetcher/pac_fetcher.h"
#include "pac/pac_parser.h"
#include "service/proxy_manager_service_impl.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"

namespace {

constexpr const char* kPath = "/com/zentu/ProxyManagerService";

// The service below calls these functions for an update and for a question.
std::function<std::int32_t()> onUpdate = [] { return 0; };
std::function<std::vector<std::string>(const std::string&)> onUrl;

}  // namespace

// The service of this test, which replaces the daemon's service.
ProxyManagerServiceImpl::ProxyManagerServiceImpl()
    : mBusHelper(DBus::get_helper()), mDbusHandler(nullptr, mBusHelper->connection(), "/other") {}
ProxyManagerServiceImpl::~ProxyManagerServiceImpl() = default;
void ProxyManagerServiceImpl::stop() {}
std::int32_t ProxyManagerServiceImpl::start() {
  return 0;
}
com::zentu::ProxyConfigTexts ProxyManagerServiceImpl::getProxyConfig() {
  throw std::runtime_error("no configuration today");
}
std::int32_t ProxyManagerServiceImpl::updateProxyConfig(const std::string&, const std::string&,
                                                        const std::string&, const bool&,
                                                        const std::string&, const std::string&) {
  return onUpdate();
}
std::vector<std::string> ProxyManagerServiceImpl::getProxyUrl(const std::string& requestUrl) {
  return onUrl(requestUrl);
}
std::vector<std::string> ProxyManagerServiceImpl::getProxyUrlWithoutScript() {
  return {"wpad"};
}
void ProxyManagerServiceImpl::pacContentUpdated() {}
void ProxyManagerServiceImpl::pacFileUpdated() {}
bool ProxyManagerServiceImpl::hasScript() const {
  return true;
}

namespace {

// Records the signals and does not send them.
class RecordingHandler : public ProxyManagerDbusHandler {
 public:
  using ProxyManagerDbusHandler::ProxyManagerDbusHandler;
  std::vector<std::vector<std::string>> signalsSent;
  std::atomic<bool> failsToSignal{false};

 private:
  void _emit_signal(DBus::SignalMessage& signal) override {
    if (failsToSignal) throw std::runtime_error("no signal today");
    std::vector<std::string> texts{signal.member()};
    for (auto reader = signal.reader(); !reader.at_end(); ++reader) {
      texts.emplace_back(reader.get_string());
    }
    signalsSent.push_back(texts);
  }
};

class HandlerWithoutService : public testing::Test {
 protected:
  PrivateBus mBus;
  std::shared_ptr<DBus::BusHelper> mHelper = DBus::get_helper();
  RecordingHandler mHandler{nullptr, mHelper->connection(), kPath};
};

class HandlerWithService : public testing::Test {
 protected:
  PrivateBus mBus;
  std::shared_ptr<DBus::BusHelper> mHelper = DBus::get_helper();
  ProxyManagerServiceImpl mService;
  RecordingHandler mHandler{&mService, mHelper->connection(), kPath};
};

void expectOffAlone(const com::zentu::ProxyConfigTexts& texts) {
  EXPECT_EQ(texts._1, "off");
  EXPECT_EQ(texts._2 + texts._3 + texts._4 + texts._5 + texts._6, "");
}

TEST_F(HandlerWithoutService, AnswersByItself) {
  EXPECT_TRUE(mHandler.checkServicestarted());
  EXPECT_EQ(mHandler.getProxyurl("http://a/"), std::vector<std::string>{"off"});
  expectOffAlone(mHandler.getProxyconfig());
  EXPECT_EQ(mHandler.updateProxyconfig("manual", "p:1", "", false, "", ""), -1);
  EXPECT_TRUE(mHandler.signalsSent.empty());
}

TEST_F(HandlerWithoutService, SaysItsEntryLines) {
  clearLog();
  {
    RecordingHandler handler(nullptr, mHelper->connection(), "/another");
    handler.checkServicestarted();
    handler.getProxyurl("http://a/");
    handler.getProxyconfig();
    handler.updateProxyconfig("off", "", "", false, "", "");
  }
  EXPECT_EQ(logLines(), (std::vector<LogLine>{
                            {LOG_INFO, "ProxyManagerDbusHandler-ProxyManagerDbusHandler called "},
                            {LOG_INFO, "ProxyManagerDbusHandler-getProxyurl called "},
                            {LOG_INFO, "ProxyManagerDbusHandler-getProxyconfig called "},
                            {LOG_INFO, "ProxyManagerDbusHandler-updateProxyconfig called "},
                            {LOG_INFO, "ProxyManagerDbusHandler-~ProxyManagerDbusHandler called "},
                        }));
}

TEST_F(HandlerWithService, PassesTheServicesUrlsOnUnchanged) {
  onUrl = [](const std::string& url) { return std::vector<std::string>{"wpad", url, ""}; };
  EXPECT_EQ(mHandler.getProxyurl("http://a/"), (std::vector<std::string>{"wpad", "http://a/", ""}));
  onUrl = [](const std::string&) { return std::vector<std::string>{}; };
  EXPECT_TRUE(mHandler.getProxyurl("http://a/").empty());
}

TEST_F(HandlerWithService, AnUpdateThatFailsIsAnnouncedOnceAllTheSame) {
  onUpdate = [] { return -7; };
  EXPECT_EQ(mHandler.updateProxyconfig("MANUAL", "p:1", "http://q/", true, "u", "w"), -7);
  EXPECT_EQ(mHandler.signalsSent, (std::vector<std::vector<std::string>>{
                                      {"notifyProxyConfigupdated", "MANUAL", "p:1", "u", "w"}}));
}

// Whole calls over the bus: a second connection sends them, and the bus thread dispatches them.
class HandlerOnTheBus : public HandlerWithService {
 protected:
  void SetUp() override { mHelper->startDispatching(); }
  void TearDown() override { mHelper->stopDispatching(); }

  DBus::Message ask(const char* member) {
    DBus::CallMessage call(mHelper->connection().unique_name(), kPath, kInterface, member);
    call.writer().append_string("http://a/");
    return mClient.send_blocking(call, 20'000);
  }

  DBus::Message update() {
    DBus::CallMessage call(mHelper->connection().unique_name(), kPath, kInterface,
                           "updateProxyconfig");
    DBus::MessageIter writer = call.writer();
    for (const char* text : {"off", "", ""}) writer.append_string(text);
    writer.append_bool(false);
    for (const char* text : {"", ""}) writer.append_string(text);
    return mClient.send_blocking(call, 20'000);
  }

  static std::vector<std::string> urls(const DBus::Message& reply) {
    std::vector<std::string> texts;
    for (auto text = reply.reader().recurse(); !text.at_end(); ++text) {
      texts.emplace_back(text.get_string());
    }
    return texts;
  }

  static constexpr const char* kInterface = "com.zentu.ProxyManagerServiceInterface";
  DBus::BusDispatcher mClientLoop;
  DBus::Connection mClient = clientConnection();

 private:
  DBus::Connection clientConnection() {
    DBus::Connection client(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), true);
    client.register_bus();
    return client;
  }
};

TEST_F(HandlerOnTheBus, RepliesWithAnEmptyArrayToAnEmptyList) {
  onUrl = [](const std::string&) { return std::vector<std::string>{}; };
  const DBus::Message reply = ask("getProxyurl");
  DBus::MessageIter reader = reply.reader();
  EXPECT_EQ(reader.type(), 'a');
  EXPECT_EQ(reader.array_type(), 's');
  EXPECT_TRUE(reader.recurse().at_end());
}

TEST_F(HandlerOnTheBus, MakesTextThatIsNotUtf8HarmlessBeforeItLeaves) {
  onUrl = [](const std::string&) { return std::vector<std::string>{"wpad", "PROXY a\xff:1"}; };
  const DBus::Message reply = ask("getProxyurl");
  DBus::MessageIter texts = reply.reader().recurse();
  EXPECT_STREQ((++texts).get_string(), "PROXY a?:1");
}

TEST_F(HandlerOnTheBus, AnExceptionIsAnsweredAsWithoutAServiceAndLoggedOnce) {
  onUrl = [](const std::string&) -> std::vector<std::string> { throw std::bad_alloc(); };
  EXPECT_EQ(urls(ask("getProxyurl")), std::vector<std::string>{"off"});
  EXPECT_EQ(countLog(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: std::bad_alloc"), 1);

  const auto answer = ask("getProxyconfig");  // kept, because the iterator points into it
  DBus::MessageIter config = answer.reader().recurse();
  EXPECT_STREQ(config.get_string(), "off");
  for (int i = 0; i < 5; ++i) EXPECT_STREQ((++config).get_string(), "");
  EXPECT_TRUE(
      logged(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: no configuration today"));

  onUpdate = []() -> std::int32_t { throw std::runtime_error("no lock today"); };
  EXPECT_EQ(update().reader().get_int32(), -1);
  EXPECT_TRUE(mHandler.signalsSent.empty());
}

TEST_F(HandlerOnTheBus, AnExceptionOfAnyTypeIsAnsweredAsWithoutAService) {
  onUrl = [](const std::string&) -> std::vector<std::string> { throw 7; };
  EXPECT_EQ(urls(ask("getProxyurl")), std::vector<std::string>{"off"});
  EXPECT_EQ(countLog(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: unknown exception"),
            1);
  onUrl = [](const std::string&) { return std::vector<std::string>{"wpad"}; };
  EXPECT_EQ(urls(ask("getProxyurl")), std::vector<std::string>{"wpad"});
}

// The exception comes after the operation: the function that announces the update throws it.
TEST_F(HandlerOnTheBus, AnExceptionAfterTheOperationIsAnsweredAsWithoutAService) {
  onUpdate = [] { return 0; };
  mHandler.failsToSignal = true;
  EXPECT_EQ(update().reader().get_int32(), -1);
}

TEST_F(HandlerOnTheBus, AWrongArgumentGetsTheLibrarysError) {
  DBus::CallMessage call(mHelper->connection().unique_name(), kPath, kInterface, "getProxyurl");
  call.writer().append_int32(7);
  try {
    mClient.send_blocking(call, 20'000);
    FAIL() << "no error";
  } catch (const DBus::Error& error) {
    EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.InvalidArgs");
  }
}

TEST_F(HandlerWithService, AfterARefusalNoCallReachesTheService) {
  bool isCalled = false;
  onUpdate = [&] {
    isCalled = true;
    return 0;
  };
  mHandler.refuseCalls();
  EXPECT_EQ(mHandler.updateProxyconfig("off", "", "", false, "", ""), -1);
  EXPECT_FALSE(isCalled);
  mHandler.attachService(mService);
  EXPECT_EQ(mHandler.updateProxyconfig("off", "", "", false, "", ""), 0);
  EXPECT_TRUE(isCalled);
}

TEST_F(HandlerWithService, DetachedItForgetsTheService) {
  onUrl = [](const std::string&) { return std::vector<std::string>{"wpad"}; };
  mHandler.detachService();
  EXPECT_EQ(mHandler.getProxyurl("http://a/"), std::vector<std::string>{"off"});
}

TEST(ValidText, LeavesUtf8AloneAndMakesTheRestHarmless) {
  EXPECT_EQ(validText(""), "");
  EXPECT_EQ(validText("höst"), "höst");
  EXPECT_EQ(validText("a\xff\xfe"
                      "b"),
            "a??b");
  EXPECT_EQ(validText("\xc3"), "?");
  EXPECT_EQ(validText("\xed\xa0\x80"), "???") << "a surrogate";
}

}  // namespace
