#include "fetcher/pac_fetcher.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <new>
#include <utility>

#include "base/log_line.h"
#include "base/wipe.h"
#include "fetcher/resolver_file.h"
#include "fetcher/service_callbacks.h"
#include "fetcher/target_file.h"
#include "fetcher/walk.h"
#include "fetcher/wpad_candidates.h"
#include "platform/process/supervisor.h"
#include "platform/process/thread_name.h"

namespace {

constexpr char kTemporaryEnding[] = ".tmp";
// Minimum time between two fetches that changes of files cause.
constexpr std::chrono::seconds kQuietTime{2};

bool sameText(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::strcmp(a, b) == 0;
}

void replaceText(char*& mine, HeapText text) {
  base::wipe(mine);  // a password may be in it
  std::free(mine);
  mine = text.release();
}

// Used instead of proxyMode2Str(), because that function logs lines. A mode number above wpad is
// treated as wpad.
const char* textOf(ProxyMode mode) {
  if (mode == off) return "off";
  if (mode == manual) return "manual";
  return mode == pacurl ? "pacurl" : "wpad";
}

std::int64_t now() {
  return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

}  // namespace

PACFetcher::PACFetcher(ProxyManagerServiceImpl* service, const std::string& pacFileName,
                       int interval)
    : mService(service), mPacFileName(pacFileName), mInterval(interval) {
  logLine(LOG_INFO, "PACFetcher-PACFetcher called");
}

PACFetcher::~PACFetcher() {
  logLine(LOG_INFO, "PACFetcher-~PACFetcher called");
  stop();
}

bool PACFetcher::start() {
  logLine(LOG_INFO, "PACFetcher-start called");
  if (mRunning.exchange(true)) {
    logLine(LOG_INFO, "PACFetcher-start already started");
    return true;
  }
  mStopping = false;
  if (!mFetcherThread) {
    fetcher::removeLeftTargets(mPacFileName + kTemporaryEnding);
    mFetcherThread = std::make_shared<std::thread>([this] { pacFetcherThreadFunc(); });
  } else {
    logLine(LOG_INFO, "PACFetcher-start pac fetcher thread already started");
  }
  if (mDhcpCfgWatchThread) {
    logLine(LOG_INFO, "PACFetcher-start dhcp config watch thread already started");
  } else {
    mWatch.begin();
    mDhcpCfgWatchThread = std::make_shared<std::thread>([this] { dhcpCfgWatchThreadFunc(); });
  }
  return true;
}

bool PACFetcher::stop() {
  logLine(LOG_INFO, "PACFetcher-stop called");
  mStopping = true;
  mRunning = false;
  // The fetcher thread reads mRunning and begins its wait while it holds this mutex. So the thread
  // either sees the new value, or is already waiting and is woken.
  { const Lock lock(mMutex); }
  mCondition.notify_one();
  if (mFetcherThread) {
    mFetcherThread->join();
    mFetcherThread.reset();
  }
  mWatch.end();
  if (mDhcpCfgWatchThread) {
    mDhcpCfgWatchThread->join();
    mDhcpCfgWatchThread.reset();
  }
  return true;
}

void PACFetcher::updateProxyMgrConfig(ProxyConfig config) {
  logLine(LOG_INFO, "PACFetcher-updateProxyMgrConfig called");
  // An allocation may fail, so the copies are made before anything changes. The helper functions of
  // the records are not used, because they log lines and treat an empty URL as no URL.
  HeapText newPacurl(heapCopy(config.pacurl));
  HeapText newProxyurl(heapCopy(config.proxyurl));
  const Lock lock(mMutex);
  const bool changes = mConfig->mode != config.mode || !sameText(mConfig->pacurl, config.pacurl) ||
                       !sameText(mConfig->proxyurl, config.proxyurl);
  mConfig->mode = config.mode;
  replaceText(mConfig->pacurl, std::move(newPacurl));
  replaceText(mConfig->proxyurl, std::move(newProxyurl));
  logLine(LOG_NOTICE, "PACFetcher-updateProxyMgrConfig mode:%d", static_cast<int>(config.mode));
  if (config.pacurl != nullptr) {
    logLine(LOG_INFO, "PACFetcher-updateProxyMgrConfig pacUrl:%s", config.pacurl);
  }
  if (config.proxyurl != nullptr) {
    logLine(LOG_INFO, "PACFetcher-updateProxyMgrConfig proxyUrl:%s", config.proxyurl);
  }
  if (changes) {
    ++mConfigNumber;
    mTransferSwitch.interrupt();
  }
  mStatus.mode = textOf(config.mode);  // fits into the string without an allocation
  mStatus.updated = now();
  mStatusIsNew = true;
  // A waiting request belongs to a configuration that is no longer in force.
  mRefetch = false;
  if (config.mode > manual) {
    logLine(LOG_NOTICE, "PACFetcher-updateProxyMgrConfig proxy mode >= pacurl refetch");
    mRefetch = true;
  }
  mCondition.notify_one();
}

bool PACFetcher::fileDownload(const std::string& url, const std::string& targetFile) {
  return fetcher::download(url, targetFile).success;
}

bool PACFetcher::isValidPacFile(const std::string& fileName) {
  std::ifstream file(fileName);
  std::string line;
  while (std::getline(file, line)) {
    if (line.find("FindProxyForURL") != std::string::npos) return true;
  }
  return false;
}

std::string PACFetcher::getDomainName() const {
  return fetcher::domainOfResolverFile();
}

std::vector<std::string> PACFetcher::wpadUrlCandidatesFromDomain(const std::string& domain) const {
  return fetcher::wpadUrlCandidates(domain);
}

int PACFetcher::retrievePacFile() {
  const ProxyMode mode = mConfig->mode;
  logLine(LOG_NOTICE, "PACFetcher-retrievePacFile proxy mode:%d", static_cast<int>(mode));
  if (mode <= manual) return 0;
  mReport = {};
  const auto candidates = fetcher::candidatesOf(*mConfig);
  if (!candidates) return -1;
  const unsigned walk = mConfigNumber;
  mTransferSwitch.allow();
  bool blocked = false;
  for (const std::string& url : *candidates) {
    const Attempt attempt = tryCandidate(url, walk);
    if (attempt == Attempt::installed) return 0;
    blocked = blocked || attempt == Attempt::blockedByFolder;
  }
  // rename cannot replace a folder of root or of the daemon's user. rmdir removes the folder if it
  // is empty, so that the next walk succeeds.
  if (blocked) rmdir(mPacFileName.c_str());
  return 0;
}

bool PACFetcher::mayGoOn(unsigned walk) const {
  return walk == mConfigNumber;
}

PACFetcher::Attempt PACFetcher::tryCandidate(const std::string& url, unsigned walk) {
  logLine(LOG_NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:%s", url.c_str());
  const std::string temporary = mPacFileName + kTemporaryEnding;
  std::string why = "not asked, as the walk was over";
  if (mayGoOn(walk) && !mStopping && fetch(url, temporary, walk, why)) {
    return install(url, temporary);
  }
  logLine(LOG_ERR, "PACFetcher-retrievePacFile PAC file download failed url:%s", url.c_str());
  std::remove(temporary.c_str());
  mReport.failed(url, why);
  return Attempt::failed;
}

/// @param why receives the reason of a failure
/// @return whether there is a script at `temporary` and the walk's configuration is still in force
bool PACFetcher::fetch(const std::string& url, const std::string& temporary, unsigned walk,
                       std::string& why) {
  bool fetched = false;
  {
    const Unlock unlock(mMutex);
    const auto download = fetcher::download(url, temporary, {&mTransferSwitch, {}});
    fetched = download.success && isValidPacFile(temporary);
    why = download.success ? "what it gives is no script" : download.error;
  }
  return fetched && mayGoOn(walk);
}

PACFetcher::Attempt PACFetcher::install(const std::string& url, const std::string& temporary) {
  if (!fetcher::renameOver(temporary, mPacFileName)) {
    const Attempt attempt = errno == EISDIR ? Attempt::blockedByFolder : Attempt::failed;
    logLine(LOG_ERR, "PACFetcher-retrievePacFile file rename failed tmpFile:%s, targetFile:%s",
            temporary.c_str(), mPacFileName.c_str());
    std::remove(temporary.c_str());
    mReport.failed(url, "its script cannot be put in place");
    return attempt;
  }
  logLine(LOG_NOTICE, "PACFetcher-retrievePacFile PAC file download success url:%s", url.c_str());
  if (service_callbacks::notifyFileUpdated(mService)) {
    mReport.installed(url);
  } else {
    mStatus.script = 0;
    mReport.failed(url, "its script is refused");
  }
  return Attempt::installed;
}

void PACFetcher::pacFetcherThreadFunc() {
  pthread_name_np(gettid(), "pm-fetch");
  logLine(LOG_INFO, "PACFetcher-pacFetcherThreadFunc called");
  while (mRunning) {
    Lock lock(mMutex);
    if (!mRefetch && !mStatusIsNew && mRunning) {
      mCondition.wait_until(lock.native(),
                            std::chrono::system_clock::now() + std::chrono::seconds(mInterval));
    }
    // A walk may take minutes, so the update and the beginning of the walk are reported first.
    noteWalkBegin();
    reportStatus();
    if (mStatus.walking == 0) continue;  // a walk was requested during the report: report it first
    // The flag is cleared before the walk: all requests that arrive during the walk cause one
    // further walk.
    if (!mRefetch.exchange(false)) continue;
    try {
      retrievePacFile();
    } catch (const std::exception&) {
      // Memory is exhausted, or the service has thrown an exception. The walk has no result, but
      // the daemon continues.
    }
    noteWalk();
  }
}

void PACFetcher::noteWalkBegin() {
  const std::int64_t begin = mRefetch ? now() : 0;
  mStatusIsNew = mStatusIsNew || begin != mStatus.walking;
  mStatus.walking = begin;
}

void PACFetcher::noteWalk() {
  mStatus.walking = 0;
  mStatus.walked = now();
  mStatusIsNew = true;
  try {
    if (mReport.hasScript()) mStatus.script = mStatus.walked;
    mStatus.result = mReport.text();
  } catch (const std::exception&) {
    mStatus.result.clear();
  }
}

void PACFetcher::reportStatus() {
  if (!std::exchange(mStatusIsNew, false)) return;
  try {
    const auto line = base::describe(mStatus);
    const Unlock unlock(mMutex);
    notifyStatus(line);
  } catch (const std::exception&) {
    // Memory is exhausted: the supervisor keeps the previous status line.
  }
}

void PACFetcher::dhcpCfgWatchThreadFunc() {
  pthread_name_np(gettid(), "pm-watch");
  logLine(LOG_INFO, "PACFetcher-dhcpCfgWatchThreadFunc called");
  const int fd = mWatch.open();
  if (fd < 0) return;
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[fetcher::ConfigWatch::kEventBytes]);
  if (!buffer) {
    logLine(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc allocation failed");
  } else if (!mWatch.addWatches()) {
    logLine(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc setting up watch on paths failed");
  } else {
    while (mRunning) {
      if (wait_for_changes(fd, mInterval) <= 0 || !mWatch.readEvents(buffer.get())) continue;
      // The first change causes a fetch at once; all changes in the interval after it cause one
      // more fetch.
      if (requestRefetch()) mWatch.pause(kQuietTime);
    }
  }
  mWatch.close();
}

bool PACFetcher::requestRefetch() {
  const Lock lock(mMutex);
  if (mConfig->mode <= manual) return false;
  logLine(LOG_NOTICE, "PACFetcher-dhcpCfgWatchThreadFunc proxy mode is wpad or pac-url refetch");
  mRefetch = true;
  mCondition.notify_one();
  return true;
}

int PACFetcher::wait_for_changes(int fd, int interval) const {
  return fetcher::waitForChanges(fd, interval);
}
