#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "fetcher/pac_fetcher.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/unit/fetcher/fetcher_access.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"
#include "tests/unit/fetcher/service_stand_in.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;

namespace {

const std::string kScript = "/tmp/proxymanager.pac";
// Much more than a prompt stop needs on a busy machine, and much less than the interval.
constexpr auto kPrompt = 60s;

/// The line that the watch thread logs before each wait. The watch thread must run.
std::string waitLine(int interval) {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) != "anon_inode:inotify") continue;
    return "PACFetcher-wait_for_changes fd:" + entry.path().filename().string() +
           ", interval:" + std::to_string(interval);
  }
  return "no inotify descriptor";
}

class FetcherThreads : public OwnRootTest {
 protected:
  void SetUp() override {
    fs::create_directories("/usr/local/lumad");
    writeFile("/usr/local/lumad/dhcp.conf", "");
    writeFile("/tmp/.resolv.conf.dnsmasq", "");
    mServer.route("/p.pac", httpResponse("200 OK", script()));
    mFetcher.emplace(standInService(), kScript, 1800);
  }

  void update(ProxyMode mode, const std::string& path = "/p.pac") {
    std::string url = mServer.url(path);
    ProxyConfig config;
    config.mode = mode;
    config.pacurl = url.data();
    mFetcher->updateProxyMgrConfig(config);
  }
  /// Makes the server hold the answer for /p.pac until `release` is ready.
  void holdScript(std::shared_future<void> release) {
    mServer.route("/p.pac", [release](Connection& peer) {
      release.wait();
      peer.send(httpResponse("200 OK", script()));
    });
  }
  /// Starts a walk over three candidates: the lease's URL (/p.pac) and two names that do not exist.
  void walkOverThree() {
    writeFile("/usr/local/lumad/dhcp.conf", "wpad=" + mServer.url("/p.pac") + "\n");
    writeFile("/tmp/.resolv.conf.dnsmasq", "search a.dead.invalid\n");
    mFetcher->start();
    update(wpad);
  }
  void expectTheOtherTwoFail() {
    for (const char* name : {"a.dead.invalid", "dead.invalid"}) {
      const std::string url = "http://wpad." + std::string(name) + "/wpad.dat";
      EXPECT_TRUE(
          waitForLog(LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + url));
      EXPECT_TRUE(logged(LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:" + url));
    }
    EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-fileDownload called"), 1);
  }
  void waitUntilWatching() {
    // This line is logged after the first watch is set and before the second is set.
    ASSERT_TRUE(waitForLog(LOG_NOTICE,
                           "PACFetcher-dhcpCfgWatchThreadFunc inotify_add_watch, "
                           "path:/tmp/.resolv.conf.dnsmasq"));
  }
  void expectPromptStop() {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(mFetcher->stop());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kPrompt);
  }

  HttpServer mServer;
  std::optional<PACFetcher> mFetcher;
};

TEST(NeverStartedFetcher, OnlySaysLinesWhenItIsDestroyed) {
  { const PACFetcher fetcher(nullptr, kScript, 1800); }
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_INFO, "PACFetcher-PACFetcher called"},
                                      LogLine{LOG_INFO, "PACFetcher-~PACFetcher called"},
                                      LogLine{LOG_INFO, "PACFetcher-stop called"}));
}

TEST_F(FetcherThreads, StartOnceHoweverOftenAsked) {
  EXPECT_TRUE(mFetcher->start());
  EXPECT_TRUE(mFetcher->start());
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-start called"), 2);
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-start already started"), 1);
  EXPECT_TRUE(waitForLog(LOG_INFO, "PACFetcher-pacFetcherThreadFunc called"));
  mFetcher->stop();
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-pacFetcherThreadFunc called"), 1);
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-dhcpCfgWatchThreadFunc called"), 1);
}

TEST_F(FetcherThreads, AreNotStartedWhereTheirHandlesAreStillThere) {
  mFetcher->start();
  PACFetcherTestAccess::pretendStopped(*mFetcher);
  EXPECT_TRUE(mFetcher->start());
  EXPECT_TRUE(logged(LOG_INFO, "PACFetcher-start pac fetcher thread already started"));
  EXPECT_TRUE(logged(LOG_INFO, "PACFetcher-start dhcp config watch thread already started"));
}

TEST_F(FetcherThreads, FetchWhenAConfigurationComes) {
  mFetcher->start();
  update(pacurl);
  EXPECT_TRUE(waitForUpdates(1));
  EXPECT_EQ(readFile(kScript), script());
}

TEST_F(FetcherThreads, FetchWhatWasRequestedBeforeTheStart) {
  update(pacurl);
  mFetcher->start();
  EXPECT_TRUE(waitForUpdates(1));
}

TEST_F(FetcherThreads, DoNotFetchInModeManualAndDoSoAtOnceBackInWpad) {
  writeFile("/usr/local/lumad/dhcp.conf", "wpad=" + mServer.url("/p.pac") + "\n");
  mFetcher->start();
  update(wpad);
  ASSERT_TRUE(waitForUpdates(1));
  update(manual);
  update(wpad);
  ASSERT_TRUE(waitForUpdates(2));
  mFetcher->stop();
  EXPECT_EQ(mServer.hits("/p.pac"), 2);
}

TEST_F(FetcherThreads, FetchExactlyOnceMoreForAllRequestsDuringAFetchAndNoneWaits) {
  std::promise<void> release;
  holdScript(release.get_future().share());
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  // Updates with the same configuration do not end the transfer, and they do not wait for it.
  for (int i = 0; i < 3; ++i) update(pacurl);
  EXPECT_EQ(timesUpdated(), 0);
  release.set_value();
  ASSERT_TRUE(waitForUpdates(2));
  mFetcher->stop();
  EXPECT_EQ(mServer.hits("/p.pac"), 2);
  EXPECT_EQ(timesUpdated(), 2);
}

TEST_F(FetcherThreads, LoadTheScriptThoughTheSameConfigurationComesAllTheTime) {
  mServer.route("/p.pac", [](Connection& peer) {
    std::this_thread::sleep_for(500ms);
    peer.send(httpResponse("200 OK", script()));
  });
  mFetcher->start();
  std::atomic<bool> done{false};
  std::thread asking([&] {
    while (!done) {
      update(pacurl);
      std::this_thread::sleep_for(200ms);
    }
  });
  EXPECT_TRUE(waitForUpdates(2));
  done = true;
  asking.join();
  EXPECT_EQ(countLog(LOG_DEBUG, "PACFetcher-fileDownload result success:false, code:0"), 0);
}

TEST_F(FetcherThreads, EndTheTransferWhenAnotherConfigurationComesAndFetchThatOnce) {
  std::promise<void> release;
  holdScript(release.get_future().share());
  mServer.route("/other.pac", httpResponse("200 OK", script("PROXY other:1")));
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  update(pacurl, "/other.pac");
  ASSERT_TRUE(waitForUpdates(1));
  EXPECT_EQ(readFile(kScript), script("PROXY other:1"));
  release.set_value();
  mFetcher->stop();
  EXPECT_EQ(mServer.hits("/other.pac"), 1);
  EXPECT_EQ(timesUpdated(), 1);
  EXPECT_TRUE(logged(LOG_DEBUG, "PACFetcher-fileDownload result success:false, code:0"));
  EXPECT_TRUE(logged(
      LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + mServer.url("/p.pac")));
}

TEST_F(FetcherThreads, EndTheTransferInModeOffAndFetchNothing) {
  std::promise<void> release;
  holdScript(release.get_future().share());
  writeFile(kScript, "old");
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  update(off);
  EXPECT_TRUE(waitForLog(
      LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:" + mServer.url("/p.pac")));
  release.set_value();
  mFetcher->stop();
  EXPECT_EQ(readFile(kScript), "old");
  EXPECT_FALSE(fs::exists(kScript + ".tmp"));
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-fileDownload called"), 1);
  EXPECT_FALSE(logged(LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:0"));
}

TEST_F(FetcherThreads, FailTheOtherCandidatesOfAnOldConfigurationWithTwoLinesEach) {
  std::promise<void> release;
  holdScript(release.get_future().share());
  walkOverThree();
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  update(off);
  expectTheOtherTwoFail();
  release.set_value();
}

TEST_F(FetcherThreads, FailTheOtherCandidatesWhenTheStopComes) {
  std::promise<void> release;
  auto released = release.get_future().share();
  mServer.route("/p.pac", [released](Connection& peer) {
    released.wait();
    peer.resetOnClose();
  });
  walkOverThree();
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  auto stopping = std::async(std::launch::async, [this] { return mFetcher->stop(); });
  EXPECT_TRUE(waitForLog(LOG_INFO, "PACFetcher-stop called"));
  // The transfer in progress is not interrupted.
  EXPECT_EQ(stopping.wait_for(200ms), std::future_status::timeout);
  release.set_value();
  EXPECT_TRUE(stopping.get());
  expectTheOtherTwoFail();
}

TEST_F(FetcherThreads, WakeAtTheIntervalAndFetchNothing) {
  mFetcher.emplace(standInService(), kScript, 1);
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(waitForUpdates(1));
  waitUntilWatching();
  // The watch thread logs each pass; the fetcher thread has the same interval.
  ASSERT_TRUE(waitForLog(LOG_INFO, waitLine(1), 4));
  mFetcher->stop();
  EXPECT_EQ(mServer.hits("/p.pac"), 1);
  EXPECT_EQ(countLog(LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:2"), 1);
}

TEST_F(FetcherThreads, SurviveAnExceptionOfTheService) {
  onUpdate([] { throw std::runtime_error("bus gone"); });
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(waitForUpdates(1));
  update(pacurl);
  EXPECT_TRUE(waitForUpdates(2));
}

TEST_F(FetcherThreads, StopOnlyWhenARunningFetchIsOver) {
  std::promise<void> release;
  holdScript(release.get_future().share());
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(mServer.waitForHits("/p.pac", 1));
  auto stopping = std::async(std::launch::async, [this] { return mFetcher->stop(); });
  EXPECT_TRUE(waitForLog(LOG_INFO, "PACFetcher-stop called"));
  EXPECT_EQ(stopping.wait_for(200ms), std::future_status::timeout);
  release.set_value();
  EXPECT_TRUE(stopping.get());
  EXPECT_EQ(timesUpdated(), 1);
  EXPECT_EQ(readFile(kScript), script());
}

TEST_F(FetcherThreads, StopPromptlyWhileIdle) {
  mFetcher->start();
  update(pacurl);
  ASSERT_TRUE(waitForUpdates(1));
  expectPromptStop();
}

TEST_F(FetcherThreads, StopPromptlyAtAnyMomentAfterTheStart) {
  for (int i = 0; i < 300; ++i) {
    mFetcher->start();
    if (i % 3 != 0) std::this_thread::sleep_for(std::chrono::microseconds(i * 7 % 500));
    expectPromptStop();
  }
}

TEST_F(FetcherThreads, StopTwice) {
  mFetcher->start();
  EXPECT_TRUE(mFetcher->stop());
  EXPECT_TRUE(mFetcher->stop());
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-stop called"), 2);
}

TEST_F(FetcherThreads, StartAgainAfterAStop) {
  mFetcher->start();
  mFetcher->stop();
  EXPECT_TRUE(mFetcher->start());
  EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-start already started"), 0);
  update(pacurl);
  EXPECT_TRUE(waitForUpdates(1));
  expectPromptStop();
}

TEST_F(FetcherThreads, EndWithTheDestructor) {
  mFetcher->start();
  mFetcher.reset();
  EXPECT_TRUE(logged(LOG_INFO, "PACFetcher-~PACFetcher called"));
  EXPECT_TRUE(logged(LOG_INFO, "PACFetcher-stop called"));
}

}  // namespace
