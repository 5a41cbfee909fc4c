#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fetcher/pac_fetcher.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/unit/fetcher/fetcher_access.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"
#include "tests/unit/fetcher/service_stand_in.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace {

const std::string kScript = "/tmp/proxymanager.pac";
const std::string kTemporary = "/tmp/proxymanager.pac.tmp";
const std::string kLease = "/usr/local/lumad/dhcp.conf";
const std::string kResolver = "/tmp/.resolv.conf.dnsmasq";
const std::string kEng = "http://wpad.eng.example.com/wpad.dat";
const std::string kExample = "http://wpad.example.com/wpad.dat";

class Retrieval : public OwnRootTest {
 protected:
  void SetUp() override {
    fs::create_directories("/usr/local/lumad");
    // The test's server is the proxy in the environment variables, so the candidates' names need no
    // lookup.
    for (const char* name : {"all_proxy", "ALL_PROXY", "NO_PROXY"}) unsetenv(name);
    setenv("http_proxy", mServer.url("").c_str(), 1);
    setenv("no_proxy", "127.0.0.1", 1);
  }

  void configure(ProxyMode mode, const std::string& url) {
    std::string copy = url;
    ProxyConfig config;
    config.mode = mode;
    config.pacurl = copy.data();
    mFetcher.updateProxyMgrConfig(config);
    clearLog();
  }
  void configure(ProxyMode mode) {
    ProxyConfig config;
    config.mode = mode;
    mFetcher.updateProxyMgrConfig(config);
    clearLog();
  }
  int retrieve() { return PACFetcherTestAccess::retrieve(mFetcher); }

  /// The log lines of retrievePacFile itself.
  static std::vector<LogLine> lines() {
    auto all = logLines();
    std::erase_if(all, [](const LogLine& line) {
      return !line.text.starts_with("PACFetcher-retrievePacFile ");
    });
    return all;
  }
  /// The URLs that were tried, in order.
  static std::vector<std::string> tried() {
    std::vector<std::string> urls;
    const std::string start = "PACFetcher-retrievePacFile try to fileDownload url:";
    for (const auto& line : logLines()) {
      if (line.text.starts_with(start)) urls.push_back(line.text.substr(start.size()));
    }
    return urls;
  }

  HttpServer mServer;
  PACFetcher mFetcher{standInService(), kScript, 1800};
};

TEST_F(Retrieval, DoesNothingInModesOffAndManualAndKeepsTheScript) {
  writeFile(kScript, "old");
  for (const ProxyMode mode : {off, manual}) {
    configure(mode, mServer.url("/p.pac"));
    EXPECT_EQ(retrieve(), 0);
    EXPECT_THAT(logLines(),
                ElementsAre(LogLine{
                    LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:" + std::to_string(mode)}));
  }
  EXPECT_EQ(readFile(kScript), "old");
  EXPECT_EQ(timesUpdated(), 0);
}

TEST_F(Retrieval, BeginsInModeOff) {
  clearLog();
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:0"}));
}

TEST_F(Retrieval, RefusesModePacurlWithoutAUrl) {
  configure(pacurl);
  EXPECT_EQ(retrieve(), -1);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:2"},
          LogLine{LOG_ERR,
                  "PACFetcher-retrievePacFile proxy mode is PACURL, proxyconfig.pacurl is empty"}));
}

TEST_F(Retrieval, InstallsTheUsersScriptAndTellsTheService) {
  const std::string url = mServer.url("/p.pac");
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  writeFile(kScript, "old");
  configure(pacurl, url);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_EQ(readFile(kScript), script());
  EXPECT_FALSE(fs::exists(kTemporary));
  EXPECT_EQ(timesUpdated(), 1);
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:2"},
          LogLine{LOG_NOTICE,
                  "PACFetcher-retrievePacFile Using user-provided PAC URL: '" + url + "'"},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:" + url},
          LogLine{LOG_INFO, "PACFetcher-fileDownload called"},
          LogLine{LOG_DEBUG, "PACFetcher-fileDownload result success:true, code:200"},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile PAC file download success url:" + url}));
}

TEST_F(Retrieval, TriesAnEmptyUserUrlAndIsDone) {
  configure(pacurl, "");
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(
      lines(),
      ElementsAre(LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:2"},
                  LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile Using user-provided PAC URL: ''"},
                  LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:"},
                  LogLine{LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:"}));
}

TEST_F(Retrieval, KeepsTheOldScriptWhenTheDownloadIsNoScript) {
  writeFile(kScript, "old");
  mServer.route("/p.pac", httpResponse("200 OK", "<html>login</html>"));
  configure(pacurl, mServer.url("/p.pac"));
  EXPECT_EQ(retrieve(), 0);
  EXPECT_EQ(readFile(kScript), "old");
  EXPECT_FALSE(fs::exists(kTemporary));
  EXPECT_EQ(timesUpdated(), 0);
  EXPECT_TRUE(logged(
      LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + mServer.url("/p.pac")));
}

TEST_F(Retrieval, BearsANullServiceWhileNothingIsInstalled) {
  PACFetcher fetcher(nullptr, kScript, 1800);
  std::string url = mServer.url("/missing");
  ProxyConfig config;
  config.mode = pacurl;
  config.pacurl = url.data();
  fetcher.updateProxyMgrConfig(config);
  EXPECT_EQ(PACFetcherTestAccess::retrieve(fetcher), 0);
}

TEST_F(Retrieval, TriesOption252AndThenTheNamesOfTheDomain) {
  const std::string url = mServer.url("/proxy.pac");
  writeFile(kLease, "wpad=" + url + "\n");
  writeFile(kResolver, "domain eng.example.com\n");
  mServer.route(kExample, httpResponse("200 OK", script("PROXY dns:1")));
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_EQ(readFile(kScript), script("PROXY dns:1"));
  EXPECT_THAT(
      lines(),
      ElementsAre(
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:3"},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:" + url},
          LogLine{LOG_INFO, "PACFetcher-retrievePacFile wpad-dns push back candidate url:" + kEng},
          LogLine{LOG_INFO,
                  "PACFetcher-retrievePacFile wpad-dns push back candidate url:" + kExample},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:" + url},
          LogLine{LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + url},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:" + kEng},
          LogLine{LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + kEng},
          LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:" + kExample},
          LogLine{LOG_NOTICE,
                  "PACFetcher-retrievePacFile PAC file download success url:" + kExample}));
}

TEST_F(Retrieval, EndsWithTheFirstGoodCandidate) {
  const std::string url = mServer.url("/proxy.pac");
  writeFile(kLease, "wpad=" + url + "\n");
  writeFile(kResolver, "domain eng.example.com\n");
  mServer.route("/proxy.pac", httpResponse("200 OK", script()));
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre(url));
  EXPECT_EQ(timesUpdated(), 1);
}

TEST_F(Retrieval, TriesAnEmptyOption252FirstAndSaysSo) {
  writeFile(kResolver, "search example.com\n");
  mServer.route(kExample, httpResponse("200 OK", script()));
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre("", kExample));
  EXPECT_TRUE(logged(LOG_NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:"));
  EXPECT_TRUE(logged(LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:"));
}

TEST_F(Retrieval, GivesNullWhenEveryCandidateFails) {
  writeFile(kScript, "old");
  writeFile(kResolver, "search eng.example.com lan\n");
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre("", kEng, kExample, "http://wpad.lan/wpad.dat"));
  EXPECT_EQ(readFile(kScript), "old");
  EXPECT_FALSE(fs::exists(kTemporary));
  EXPECT_EQ(timesUpdated(), 0);
}

TEST_F(Retrieval, TakesACommentedSearchLineFromItsFirstBlankOn) {
  writeFile(kResolver, "# search x.example.com\n");
  configure(wpad);
  retrieve();
  EXPECT_THAT(tried(), ElementsAre("", "http://wpad.search/wpad.dat",
                                   "http://wpad.x.example.com/wpad.dat", kExample));
}

TEST_F(Retrieval, TriesOption252AloneWithoutAResolverFile) {
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre(""));
  EXPECT_TRUE(logged(LOG_ERR, "PACFetcher-getDomainName open:/tmp/.resolv.conf.dnsmasq failed"));
}

TEST_F(Retrieval, TakesAModePastWpadAsWpad) {
  configure(static_cast<ProxyMode>(4));
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre(""));
}

TEST_F(Retrieval, RefusesModeWpadWithoutDhcpInformationAndTriesNoName) {
  fs::create_directory(kLease);
  writeFile(kResolver, "search example.com\n");
  configure(wpad);
  EXPECT_EQ(retrieve(), -1);
  EXPECT_THAT(lines(),
              ElementsAre(LogLine{LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:3"},
                          LogLine{LOG_ERR, "PACFetcher-retrievePacFile getdhcpinfo error rc:22"}));
}

TEST_F(Retrieval, GoesOnWithTheNextCandidateAfterAFailedRenameAndKeepsTheOldScript) {
  writeFile(kScript, "old");
  ASSERT_EQ(mount(kScript.c_str(), kScript.c_str(), nullptr, MS_BIND, nullptr), 0);
  const std::string url = mServer.url("/proxy.pac");
  writeFile(kLease, "wpad=" + url + "\n");
  writeFile(kResolver, "domain example.com\n");
  mServer.route("/proxy.pac", httpResponse("200 OK", script()));
  mServer.route(kExample, httpResponse("200 OK", script()));
  configure(wpad);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_THAT(tried(), ElementsAre(url, kExample));
  EXPECT_EQ(countLog(LOG_ERR,
                     "PACFetcher-retrievePacFile file rename failed "
                     "tmpFile:/tmp/proxymanager.pac.tmp, targetFile:/tmp/proxymanager.pac"),
            2);
  EXPECT_EQ(readFile(kScript), "old");
  EXPECT_FALSE(fs::exists(kTemporary));
  EXPECT_EQ(timesUpdated(), 0);
}

TEST_F(Retrieval, ReplacesALinkAtTheScriptsNameAndNotWhatItPointsTo) {
  writeFile("/tmp/victim", "victim");
  fs::create_symlink("/tmp/victim", kScript);
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  configure(pacurl, mServer.url("/p.pac"));
  EXPECT_EQ(retrieve(), 0);
  EXPECT_FALSE(fs::is_symlink(kScript));
  EXPECT_EQ(readFile(kScript), script());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
}

TEST_F(Retrieval, InstallsAfterAnEmptyFolderStoodAtEitherName) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  configure(pacurl, mServer.url("/p.pac"));
  for (const std::string& path : {kScript, kTemporary}) {
    fs::remove(kScript);
    fs::create_directory(path);
    clearLog();
    EXPECT_EQ(retrieve(), 0);
    EXPECT_FALSE(fs::exists(path)) << path;
    EXPECT_EQ(retrieve(), 0);
    EXPECT_EQ(readFile(kScript), script());
  }
}

TEST_F(Retrieval, LeavesAFolderWithFilesAtTheScriptsNameAndSaysSoEachTime) {
  fs::create_directory(kScript);
  writeFile(kScript + "/file", "theirs");
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  configure(pacurl, mServer.url("/p.pac"));
  for (int time = 1; time <= 2; ++time) {
    EXPECT_EQ(retrieve(), 0);
    EXPECT_EQ(countLog(LOG_ERR,
                       "PACFetcher-retrievePacFile file rename failed "
                       "tmpFile:/tmp/proxymanager.pac.tmp, targetFile:/tmp/proxymanager.pac"),
              time);
  }
  EXPECT_EQ(readFile(kScript + "/file"), "theirs");
}

TEST_F(Retrieval, InstallsOverAFifoAndAHardLinkAtEitherName) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  configure(pacurl, mServer.url("/p.pac"));
  writeFile("/tmp/victim", "victim");
  ASSERT_EQ(mkfifo(kScript.c_str(), 0666), 0);
  fs::create_hard_link("/tmp/victim", kTemporary);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_EQ(readFile(kScript), script());
  fs::remove(kScript);
  fs::create_hard_link("/tmp/victim", kScript);
  ASSERT_EQ(mkfifo(kTemporary.c_str(), 0666), 0);
  EXPECT_EQ(retrieve(), 0);
  EXPECT_EQ(readFile(kScript), script());
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
}

}  // namespace
