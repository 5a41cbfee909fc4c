#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <string>

#include "fetcher/pac_fetcher.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"
#include "tests/unit/fetcher/fetcher_access.h"

using testing::ElementsAre;

namespace {

ProxyConfig config(ProxyMode mode, std::string& proxyUrl, std::string& pacUrl) {
  ProxyConfig made;
  made.mode = mode;
  made.proxyurl = proxyUrl.data();
  made.pacurl = pacUrl.data();
  return made;
}

TEST(ConfigUpdate, SaysWhatItTookAndThatItRefetches) {
  PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  std::string proxyUrl = "p:1";
  std::string pacUrl = "http://a/";
  for (const ProxyMode mode : {pacurl, wpad}) {
    clearLog();
    fetcher.updateProxyMgrConfig(config(mode, proxyUrl, pacUrl));
    EXPECT_THAT(
        logLines(),
        ElementsAre(
            LogLine{LOG_INFO, "PACFetcher-updateProxyMgrConfig called"},
            LogLine{LOG_NOTICE, "PACFetcher-updateProxyMgrConfig mode:" + std::to_string(mode)},
            LogLine{LOG_INFO, "PACFetcher-updateProxyMgrConfig pacUrl:http://a/"},
            LogLine{LOG_INFO, "PACFetcher-updateProxyMgrConfig proxyUrl:p:1"},
            LogLine{LOG_NOTICE, "PACFetcher-updateProxyMgrConfig proxy mode >= pacurl refetch"}));
  }
}

TEST(ConfigUpdate, RequestsNothingInModesOffAndManual) {
  PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  for (const ProxyMode mode : {off, manual}) {
    clearLog();
    ProxyConfig plain;
    plain.mode = mode;
    fetcher.updateProxyMgrConfig(plain);
    EXPECT_THAT(logLines(),
                ElementsAre(LogLine{LOG_INFO, "PACFetcher-updateProxyMgrConfig called"},
                            LogLine{LOG_NOTICE, "PACFetcher-updateProxyMgrConfig mode:" +
                                                    std::to_string(mode)}));
  }
}

TEST(ConfigUpdate, KeepsItsOwnCopyOfTheTexts) {
  enterOwnRoot();
  PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  std::string proxyUrl;
  std::string pacUrl = "foo://first/";
  fetcher.updateProxyMgrConfig(config(pacurl, proxyUrl, pacUrl));
  pacUrl.assign(pacUrl.size(), 'x');
  PACFetcherTestAccess::retrieve(fetcher);
  EXPECT_TRUE(
      logged(LOG_NOTICE, "PACFetcher-retrievePacFile Using user-provided PAC URL: 'foo://first/'"));
}

TEST(ConfigUpdate, ForgetsTheUrlThatANewConfigurationDoesNotHave) {
  PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  std::string proxyUrl;
  std::string pacUrl = "foo://first/";
  fetcher.updateProxyMgrConfig(config(pacurl, proxyUrl, pacUrl));
  ProxyConfig plain;
  plain.mode = pacurl;
  fetcher.updateProxyMgrConfig(plain);
  EXPECT_EQ(PACFetcherTestAccess::retrieve(fetcher), -1);
}

}  // namespace
