#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <optional>
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

namespace {
std::atomic<bool> noEventBuffer{false};
std::atomic<bool> noInotify{false};
}  // namespace

// Replaces the C library's function, so that a test can make it fail. A limit on descriptors would
// also affect the pipes of the sanitizers.
extern "C" int inotify_init() noexcept {
  return noInotify ? -1 : static_cast<int>(syscall(SYS_inotify_init1, 0));
}

// Only the fetcher's buffer for events is allocated in this way. A test can make this allocation
// fail.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (noEventBuffer && size == 4096) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace {

const std::string kScript = "/tmp/proxymanager.pac";
const std::string kLease = "/usr/local/lumad/dhcp.conf";
const std::string kResolver = "/tmp/.resolv.conf.dnsmasq";
constexpr auto kPrompt = 60s;  // much more than a prompt stop needs, much less than the interval

/// Returns the thread's inotify descriptor, or -1 if there is no such descriptor.
int inotifyFd() {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) == "anon_inode:inotify") {
      return std::stoi(entry.path().filename().string());
    }
  }
  return -1;
}

class ConfigWatch : public OwnRootTest {
 protected:
  void SetUp() override {
    fs::create_directories("/usr/local/lumad");
    mServer.route("/p.pac", httpResponse("200 OK", script()));
    mFetcher.emplace(standInService(), kScript, 1800);
  }

  static void makeFiles() {
    writeFile(kLease, "");
    writeFile(kResolver, "");
  }
  void update(ProxyMode mode) {
    std::string url = mServer.url("/p.pac");
    ProxyConfig config;
    config.mode = mode;
    config.pacurl = url.data();
    mFetcher->updateProxyMgrConfig(config);
  }
  /// Waits until the watch thread has logged `times` times that it will sleep.
  static bool waitForSleep(int times = 1) {
    if (!waitForLog(LOG_NOTICE,
                    "PACFetcher-dhcpCfgWatchThreadFunc inotify_add_watch, path:" + kResolver))
      return false;
    return waitForLog(
        LOG_INFO,
        "PACFetcher-wait_for_changes fd:" + std::to_string(inotifyFd()) + ", interval:1800", times);
  }
  /// Starts the fetcher in mode pacurl, and waits until the first fetch is done.
  void startWatching() {
    mFetcher->start();
    ASSERT_TRUE(waitForSleep());
    update(pacurl);
    ASSERT_TRUE(waitForUpdates(1));
  }
  void expectPromptStop() {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(mFetcher->stop());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kPrompt);
  }
  /// Checks the parts that work without the watch thread.
  void expectFetchesAllTheSame() {
    update(pacurl);
    EXPECT_TRUE(waitForUpdates(1));
    expectPromptStop();
  }

  HttpServer mServer;
  std::optional<PACFetcher> mFetcher;
};

class WatchedFile : public ConfigWatch, public testing::WithParamInterface<std::string> {
 protected:
  void expectOneRefetch() {
    EXPECT_TRUE(waitForLog(LOG_INFO, "PACFetcher-dhcpCfgWatchThreadFunc read len:16"));
    EXPECT_TRUE(waitForLog(
        LOG_NOTICE, "PACFetcher-dhcpCfgWatchThreadFunc proxy mode is wpad or pac-url refetch"));
    EXPECT_TRUE(waitForUpdates(2));
    mFetcher->stop();
    EXPECT_EQ(mServer.hits("/p.pac"), 2);
  }
};

TEST_P(WatchedFile, RefetchesWhenItIsTouched) {
  makeFiles();
  startWatching();
  ASSERT_EQ(utimensat(AT_FDCWD, GetParam().c_str(), nullptr, 0), 0);
  expectOneRefetch();
}

TEST_P(WatchedFile, RefetchesWhenItsModeChanges) {
  makeFiles();
  startWatching();
  ASSERT_EQ(chmod(GetParam().c_str(), 0600), 0);
  expectOneRefetch();
}

TEST_P(WatchedFile, RefetchesWhenItIsWritten) {
  makeFiles();
  startWatching();
  writeFile(GetParam(), "domain example.com\n");
  EXPECT_TRUE(waitForUpdates(2));
}

TEST_P(WatchedFile, IsWatchedThoughTheOtherIsMissing) {
  writeFile(GetParam(), "");
  startWatching();
  const std::string other = GetParam() == kLease ? kResolver : kLease;
  EXPECT_TRUE(
      logged(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:" + other));
  EXPECT_FALSE(logged(
      LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:" + GetParam()));
  EXPECT_FALSE(
      logged(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc setting up watch on paths failed"));
  ASSERT_EQ(chmod(GetParam().c_str(), 0600), 0);
  expectOneRefetch();
}

INSTANTIATE_TEST_SUITE_P(OfBoth, WatchedFile, testing::Values(kLease, kResolver),
                         [](const auto& each) { return each.index == 0 ? "Lease" : "Resolver"; });

TEST_F(ConfigWatch, ReadsAndIgnoresAChangeInModesOffAndManual) {
  makeFiles();
  mFetcher->start();
  ASSERT_TRUE(waitForSleep());
  int reads = 0;
  for (const ProxyMode mode : {off, manual}) {
    update(mode);
    ASSERT_EQ(chmod(kResolver.c_str(), mode == off ? 0600 : 0640), 0);
    ASSERT_TRUE(waitForLog(LOG_INFO, "PACFetcher-dhcpCfgWatchThreadFunc read len:16", ++reads));
    ASSERT_TRUE(waitForSleep(reads + 1));
  }
  mFetcher->stop();
  EXPECT_FALSE(logged(LOG_NOTICE,
                      "PACFetcher-dhcpCfgWatchThreadFunc proxy mode is wpad or pac-url refetch"));
  EXPECT_EQ(mServer.hits("/p.pac"), 0);
}

TEST_F(ConfigWatch, IgnoresAChangeBeforeTheFirstConfiguration) {
  makeFiles();
  mFetcher->start();
  ASSERT_TRUE(waitForSleep());
  ASSERT_EQ(chmod(kResolver.c_str(), 0600), 0);
  ASSERT_TRUE(waitForSleep(2));
  EXPECT_FALSE(logged(LOG_NOTICE,
                      "PACFetcher-dhcpCfgWatchThreadFunc proxy mode is wpad or pac-url refetch"));
}

// Many changes in a row cause one fetch at once, and then one fetch every two seconds.
TEST_F(ConfigWatch, TakesTheChangesOfTwoSecondsTogetherAfterTheFirst) {
  makeFiles();
  startWatching();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(chmod(kLease.c_str(), i % 2 == 0 ? 0600 : 0640), 0);
    ASSERT_EQ(chmod(kResolver.c_str(), i % 2 == 0 ? 0600 : 0640), 0);
    std::this_thread::sleep_for(1ms);
  }
  const auto flood = std::chrono::steady_clock::now() - begin;
  ASSERT_TRUE(waitForUpdates(3));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 2s);
  mFetcher->stop();
  const auto most = 1 + 1 + (flood + 1s) / 2s + 1;
  EXPECT_LE(mServer.hits("/p.pac"), most);
}

TEST_F(ConfigWatch, IsPromptlyStoppedWhileItWaitsForMoreChanges) {
  makeFiles();
  startWatching();
  ASSERT_EQ(chmod(kLease.c_str(), 0600), 0);
  ASSERT_TRUE(waitForUpdates(2));
  expectPromptStop();
}

class UnwatchedFile : public ConfigWatch, public testing::WithParamInterface<int> {};

// The daemon watches only files that it would also read.
TEST_P(UnwatchedFile, CausesNoFetch) {
  writeFile(kLease, "");
  writeFile("/tmp/theirs", "");
  switch (GetParam()) {
    case 0:
      fs::create_symlink("/tmp", kResolver);
      break;
    case 1:
      fs::create_symlink("/tmp/theirs", kResolver);
      break;
    case 2:
      fs::create_hard_link("/tmp/theirs", kResolver);
      break;
    case 3:
      fs::create_directory(kResolver);
      break;
    case 4:
      ASSERT_EQ(mkfifo(kResolver.c_str(), 0666), 0);
      break;
    default:
      writeFile(kResolver, "");
      ASSERT_EQ(chown(kResolver.c_str(), 4711, 4711), 0);
  }
  mFetcher->start();
  ASSERT_TRUE(waitForLog(
      LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:" + kResolver));
  EXPECT_FALSE(logged(
      LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:" + kLease));
}

const char* const kUnwatched[] = {"LinkToAFolder", "LinkToAFile", "SecondName",
                                  "Folder",        "Fifo",        "AnotherUsers"};

INSTANTIATE_TEST_SUITE_P(OfAnyKind, UnwatchedFile, testing::Range(0, 6),
                         [](const auto& test) { return std::string(kUnwatched[test.index]); });

TEST_F(ConfigWatch, LetsGoOfASleepingThreadAtOnce) {
  makeFiles();
  mFetcher->start();
  ASSERT_TRUE(waitForSleep());
  expectPromptStop();
  EXPECT_EQ(inotifyFd(), -1);
}

TEST_F(ConfigWatch, LetsGoAtOnceThoughTheWatchesWentWithTheirFiles) {
  makeFiles();
  startWatching();
  fs::remove(kLease);
  fs::remove(kResolver);
  // Each removal causes an event for the link count and an event for the end of the watch. The test
  // waits until all 64 bytes are read and the thread sleeps, so that no remaining event can wake
  // it.
  const auto bytesRead = [] {
    int sum = 0;
    for (const auto& line : logLines()) {
      if (line.text.starts_with("PACFetcher-dhcpCfgWatchThreadFunc read len:")) {
        sum += std::stoi(line.text.substr(line.text.find("len:") + 4));
      }
    }
    return sum;
  };
  const auto sleeps = [] {
    return countLog(LOG_INFO, "PACFetcher-wait_for_changes fd:" + std::to_string(inotifyFd()) +
                                  ", interval:1800");
  };
  const auto reads = [] {
    int count = 0;
    for (const auto& line : logLines())
      count += line.text.starts_with("PACFetcher-dhcpCfgWatchThreadFunc read len:");
    return count;
  };
  const auto limit = std::chrono::steady_clock::now() + 60s;
  while ((bytesRead() < 64 || sleeps() <= reads()) && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_EQ(bytesRead(), 64);
  expectPromptStop();
}

TEST_F(ConfigWatch, WatchesAgainAfterAStopAndAStart) {
  makeFiles();
  startWatching();
  mFetcher->stop();
  clearLog();
  mFetcher->start();
  ASSERT_TRUE(waitForSleep());
  ASSERT_EQ(chmod(kLease.c_str(), 0600), 0);
  EXPECT_TRUE(waitForUpdates(2));
  expectPromptStop();
}

TEST_F(ConfigWatch, DoesWithoutTheThreadWhereNoFileIsThere) {
  mFetcher->start();
  ASSERT_TRUE(
      waitForLog(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc setting up watch on paths failed"));
  for (const std::string& path : {kLease, kResolver}) {
    EXPECT_EQ(
        countLog(LOG_NOTICE, "PACFetcher-dhcpCfgWatchThreadFunc inotify_add_watch, path:" + path),
        1);
    EXPECT_EQ(countLog(LOG_ERR,
                       "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:" + path),
              1);
  }
  expectFetchesAllTheSame();
  EXPECT_EQ(inotifyFd(), -1);
}

TEST_F(ConfigWatch, DoesWithoutTheThreadWhereTheEventBufferIsNotToBeHad) {
  makeFiles();
  noEventBuffer = true;
  mFetcher->start();
  ASSERT_TRUE(waitForLog(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc allocation failed"));
  expectFetchesAllTheSame();
  EXPECT_EQ(inotifyFd(), -1);
}

TEST_F(ConfigWatch, DoesWithoutTheThreadWhereInotifyIsNotToBeHad) {
  makeFiles();
  noInotify = true;
  mFetcher->start();
  ASSERT_TRUE(
      waitForLog(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc inotify init failure, ifd:-1"));
  expectFetchesAllTheSame();
}

/// Opens descriptors until all numbers up to `last` are in use. @return false if the machine allows
/// fewer than 1200
bool takeDescriptorsUpTo(int last) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < 1200) return false;
  limit.rlim_cur = 1200;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  while (dup(0) < last) continue;
  return true;
}

TEST_F(ConfigWatch, TakesADescriptorThatSelectCannotHoldForAFailure) {
  makeFiles();
  if (!takeDescriptorsUpTo(1023)) GTEST_SKIP() << "needs 1200 descriptors";
  mFetcher->start();
  ASSERT_TRUE(
      waitForLog(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc inotify init failure, ifd:1024"));
  EXPECT_EQ(inotifyFd(), -1);
  closefrom(900);
  expectPromptStop();
}

TEST_F(ConfigWatch, TakesTheLastDescriptorThatSelectCanHold) {
  makeFiles();
  if (!takeDescriptorsUpTo(1022)) GTEST_SKIP() << "needs 1200 descriptors";
  mFetcher->start();
  ASSERT_TRUE(waitForLog(LOG_INFO, "PACFetcher-wait_for_changes fd:1023, interval:1800"));
  expectPromptStop();
}

TEST_F(ConfigWatch, SaysAFailedSelect) {
  const int closed = dup(0);  // a low number: select checks only the range of open descriptors
  close(closed);
  EXPECT_EQ(PACFetcherTestAccess::waitForChanges(*mFetcher, closed, 1), -1);
  EXPECT_TRUE(logged(LOG_INFO,
                     "PACFetcher-wait_for_changes fd:" + std::to_string(closed) + ", interval:1"));
  EXPECT_TRUE(logged(LOG_ERR, "PACFetcher-wait_for_changes select error, ret:-1"));
}

TEST_F(ConfigWatch, WaitsForTheTimeoutWhereNothingComes) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(PACFetcherTestAccess::waitForChanges(*mFetcher, ends[0], 0), 0);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_EQ(PACFetcherTestAccess::waitForChanges(*mFetcher, ends[0], 1800), 1);
}

}  // namespace
