#include "pac/pac_parser.h"

#include <chrono>
#include <cstring>

#include "base/log_line.h"
#include "domain/url_host.h"
#include "pac/service_callbacks.h"
#include "platform/process/thread_name.h"
#include "service/records/held_settings.h"

namespace {

constexpr const char* kPrefix = "PacParser-";

// An asynchronous query looks for its answer every 10 ms, 200 ms at most.
constexpr std::chrono::milliseconds kPollPause{10};
constexpr std::chrono::milliseconds kPollLimit{200};

void logCalled(const char* function) {
  logLine(LOG_INFO, "%s%s called ", kPrefix, function);
}

const char* textOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

PacParser::PacParser(ProxyManagerServiceImpl* service, bool pacInitOption)
    : mServiceImpl(service),
      mPacInitOption(pacInitOption),
      mCache(std::make_unique<ProxyUrlCache>(kCacheCapacity, clearProxyUrlCacheCallBack, this)) {
  logCalled("PacParser");
}

PacParser::~PacParser() {
  logCalled("~PacParser");
  stop();
}

bool PacParser::start() {
  logCalled("start");
  if (mRunning) {
    logLine(LOG_INFO, "%s%s already started", kPrefix, "start");
    return true;
  }
  mRunning = true;
  if (mThread) {
    logLine(LOG_INFO, "%s%s pac process thread already started", kPrefix, "start");
    return true;
  }
  mThread = std::make_shared<std::thread>([this] { pacProcessThreadFunc(); });
  return true;
}

bool PacParser::stop() {
  logCalled("stop");
  mServiceImpl = nullptr;
  {
    // Through the wait's mutex: the worker is either before its look at the flag, or waiting.
    const Lock lock(mWaitMutex);
    mRunning = false;
  }
  mCond.notify_one();
  if (mThread) {
    mThread->join();
    mThread.reset();
  }
  {
    const Lock lock(mEngineMutex);
    mPacContent.reset();
    mPac.reset();
  }
  if (hasCache()) clearProxyUrlCache();
  const Lock lock(mCacheMutex);
  mCache.reset();
  mPendingHosts.clear();
  return true;
}

void PacParser::pacProcessThreadFunc() {
  pthread_name_np(gettid(), "pm-pac");
  logCalled("pacProcessThreadFunc");
  while (mRunning) {
    waitForNotice();
    if (mNotified) runQueued();
  }
}

void PacParser::waitForNotice() {
  Lock lock(mWaitMutex);
  if (mNotified || !mRunning) return;
  const std::chrono::milliseconds wait = std::chrono::seconds(mWaitSeconds);
  logLine(LOG_INFO, "%s%s wait:%d", kPrefix, "pacProcessThreadFunc",
          static_cast<int>(wait.count()));
  mCond.wait_until(lock.native(), std::chrono::system_clock::now() + wait);
}

// The gate comes before the locks, so that no answer of an old script follows the emptying.
void PacParser::runQueued() {
  const auto answers = shareAnswers();
  const Lock waitLock(mWaitMutex);
  const Lock engineLock(mEngineMutex);
  pac_run_callbacks(mPac.get());
  mNotified = false;
}

void PacParser::notify(void* parser) {
  logCalled("notify");
  if (parser == nullptr) {
    logLine(LOG_INFO, "%s%s PacParser is NULL", kPrefix, "notify");
    return;
  }
  static_cast<PacParser*>(parser)->do_notify();
}

// Called inside the engine, under its mutex, which comes after the wait's: getProxyASync passes
// through that one when it has left the engine.
void PacParser::do_notify() {
  logCalled("do_notify");
  mNotified = true;
  mCond.notify_one();
}

bool PacParser::hasEngine() {
  const Lock lock(mEngineMutex);
  return mPac != nullptr;
}

bool PacParser::hasCache() {
  const Lock lock(mCacheMutex);
  return mCache != nullptr;
}

ProxyUrlSettings PacParser::getProxy(const std::string& requestUrl) {
  logLine(LOG_NOTICE, "%s%s requestUrl:%s", kPrefix, "getProxy", requestUrl.c_str());
  ProxyUrlSettings found;
  if (requestUrl.empty()) {
    logLine(LOG_ERR, "%s%s request url is empty", kPrefix, "getProxy");
    return found;
  }
  const HeapText host(getHost(requestUrl));
  const std::string key = textOrEmpty(host.get());
  if (findCached("getProxy", key, found)) return found;

  char* result = nullptr;
  {
    const Lock lock(mEngineMutex);
    if (mPac == nullptr) {
      logLine(LOG_WARNING, "%s%s mPac is empty, may casued by pac file update", kPrefix,
              "getProxy");
    } else {
      pac_find_proxy_sync_n(mPac.get(), requestUrl.c_str(), key.c_str(), &result);
    }
  }
  if (result == nullptr) {
    logLine(LOG_WARNING, "%s%s can't get proxy url for host:%s", kPrefix, "getProxy", key.c_str());
    return found;
  }
  proxyFound(result, this, const_cast<char*>(key.c_str()));
  takeCached(key, found);
  return found;
}

ProxyUrlSettings PacParser::getProxyASync(const std::string& requestUrl) {
  logLine(LOG_NOTICE, "%s%s requestUrl:%s", kPrefix, "getProxyASync", requestUrl.c_str());
  ProxyUrlSettings found;
  if (requestUrl.empty() || !hasEngine()) {
    logLine(LOG_ERR, "%s%s request url or mPac is empty", kPrefix, "getProxyASync");
    return found;
  }
  const HeapText host(getHost(requestUrl));
  const std::string key = textOrEmpty(host.get());
  if (findCached("getProxyASync", key, found)) return found;
  notePending(key);
  {
    const Lock lock(mEngineMutex);
    pac_find_proxy(mPac.get(), requestUrl.c_str(), key.c_str(), proxyFound, this);
  }
  {
    // So that the wake-up is not lost between the worker's look at the flag and its wait.
    const Lock lock(mWaitMutex);
  }
  mCond.notify_one();
  return awaitAnswer(key);
}

// A question without an answer is never heard of again: its host goes when room is needed.
void PacParser::notePending(const std::string& key) {
  const Lock lock(mCacheMutex);
  if (mPendingHosts.size() >= kMaxPendingHosts && mPendingHosts.count(key) == 0) {
    mPendingHosts.erase(mPendingHosts.begin());
  }
  mPendingHosts[key] = false;
}

ProxyUrlSettings PacParser::awaitAnswer(const std::string& key) {
  ProxyUrlSettings found;
  std::chrono::milliseconds waited{0};
  while (mRunning && waited < kPollLimit) {
    if (takeCached(key, found)) return found;
    std::this_thread::sleep_for(kPollPause);
    waited += kPollPause;
  }
  if (waited >= kPollLimit) {
    logLine(LOG_ERR, "%s%s waiting too long time", kPrefix, "getProxyASync");
  }
  return found;
}

bool PacParser::findCached(const char* function, const std::string& key, ProxyUrlSettings& found) {
  const Lock lock(mCacheMutex);
  if (!mCache->get(key, found)) return false;
  logLine(LOG_NOTICE, "%s%s get proxy url from cache", kPrefix, function);
  return true;
}

bool PacParser::takeCached(const std::string& key, ProxyUrlSettings& found) {
  const Lock lock(mCacheMutex);
  return mCache->get(key, found);
}

void PacParser::proxyFound(char* result, void* parser, void* host) {
  const HeapText owned(result);
  logCalled("proxyFound");
  if (parser == nullptr || host == nullptr) {
    logLine(LOG_INFO, "%s%s PacParser::proxyFound() pacparser or request url is null", kPrefix,
            "proxyFound");
  }
  if (parser != nullptr) {
    static_cast<PacParser*>(parser)->proxy_Found(result, static_cast<const char*>(host));
  }
}

void PacParser::proxy_Found(const char* result, const char* host) {
  if (host == nullptr) {
    logLine(LOG_NOTICE, "%s%s host:%s", kPrefix, "proxy_Found", "");
    return;
  }
  logLine(LOG_NOTICE, "%s%s host:%s", kPrefix, "proxy_Found", host);
  const Lock lock(mCacheMutex);
  mPendingHosts.erase(host);
  HeldSettings settings(proxys2ProxySettings(textOrEmpty(result)));
  mCache->set(host, settings.get());
  settings.release();  // the cache's now
}

void PacParser::clearProxyUrlCache() {
  logCalled("clearProxyUrlCache");
  const Lock lock(mCacheMutex);
  mCache->clearCache();
  mPendingHosts.clear();
}

void PacParser::clearProxyUrlCacheCallBack(ProxyUrlSettings& settings, void* context) {
  logCalled("clearProxyUrlCacheCallBack");
  if (context != nullptr) clearProxySettings(settings);
}

void PacParser::clearProxySettings(ProxyUrlSettings& settings) {
  logCalled("clearProxySettings");
  for (auto& setting : settings) cleanupProxySetting(&setting);
  settings.clear();
}
