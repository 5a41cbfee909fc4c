#include "fetcher/pac_fetcher.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "base/log_line.h"
#include "fetcher/fetcher_log.h"
#include "platform/process/thread_name.h"

using fetcher::kLogClass;

namespace {

void replaceText(char*& mine, HeapText text) {
  std::free(mine);
  mine = text.release();
}

}  // namespace

PACFetcher::PACFetcher(ProxyManagerServiceImpl* service, const std::string& pacFileName,
                       int interval)
    : mService(service), mPacFileName(pacFileName), mInterval(interval) {
  {
    const Lock lock(mWatchMutex);
    mWatchDescriptors.reserve(kWatchedFiles);
  }
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
}

PACFetcher::~PACFetcher() {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  stop();
}

bool PACFetcher::start() {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  if (mRunning.exchange(true)) {
    logLine(LOG_INFO, "%s%s already started", kLogClass, __func__);
    return true;
  }
  if (!mFetcherThread) {
    mFetcherThread = std::make_shared<std::thread>([this] { pacFetcherThreadFunc(); });
  } else {
    logLine(LOG_INFO, "%s%s pac fetcher thread already started", kLogClass, __func__);
  }
  if (mDhcpCfgWatchThread) {
    logLine(LOG_INFO, "%s%s dhcp config watch thread already started", kLogClass, __func__);
  } else {
    mWatchesRemoved = false;
    mDhcpCfgWatchThread = std::make_shared<std::thread>([this] { dhcpCfgWatchThreadFunc(); });
  }
  return true;
}

bool PACFetcher::stop() {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  mRunning = false;
  // Past the mutex, the fetcher thread has either seen the flag or waits and hears the call.
  { const Lock lock(mMutex); }
  mCondition.notify_one();
  if (mFetcherThread) {
    mFetcherThread->join();
    mFetcherThread.reset();
  }
  {
    const Lock lock(mMutex);
    removeWatches(true);
  }
  if (mDhcpCfgWatchThread) {
    mDhcpCfgWatchThread->join();
    mDhcpCfgWatchThread.reset();
  }
  return true;
}

void PACFetcher::updateProxyMgrConfig(ProxyConfig config) {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  // Before anything changes, as there may be no memory for them. The records' own helpers would say
  // lines, and take an empty URL for none.
  HeapText newPacurl(heapCopy(config.pacurl));
  HeapText newProxyurl(heapCopy(config.proxyurl));
  const Lock lock(mMutex);
  mConfig->mode = config.mode;
  replaceText(mConfig->pacurl, std::move(newPacurl));
  replaceText(mConfig->proxyurl, std::move(newProxyurl));
  logLine(LOG_NOTICE, "%s%s mode:%d", kLogClass, __func__, static_cast<int>(config.mode));
  if (config.pacurl != nullptr) {
    logLine(LOG_INFO, "%s%s pacUrl:%s", kLogClass, __func__, config.pacurl);
  }
  if (config.proxyurl != nullptr) {
    logLine(LOG_INFO, "%s%s proxyUrl:%s", kLogClass, __func__, config.proxyurl);
  }
  if (config.mode > manual) {
    logLine(LOG_NOTICE, "%s%s proxy mode >= pacurl refetch", kLogClass, __func__);
    mRefetch = true;
    mCondition.notify_one();
  }
}

void PACFetcher::pacFetcherThreadFunc() {
  pthread_name_np(gettid(), "pm-fetch");
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  while (mRunning) {
    Lock lock(mMutex);
    if (!mRefetch && mRunning) {
      mCondition.wait_until(lock.native(),
                            std::chrono::system_clock::now() + std::chrono::seconds(mInterval));
    }
    if (!mRefetch) continue;
    try {
      retrievePacFile();
    } catch (const std::exception&) {
      // Out of memory, or what the service let out: a walk without a result, not the daemon's end.
    }
    // Whoever asks during a walk waits at the mutex, and sets the flag after this.
    mRefetch = false;
  }
}
