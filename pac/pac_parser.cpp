#include "pac/pac_parser.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "base/log_line.h"
#include "domain/url_host.h"
#include "pac/pac_result.h"
#include "pac/service_callbacks.h"
#include "platform/process/thread_name.h"
#include "service/records/owned_settings.h"

namespace {

// An asynchronous query checks every 10 ms, for at most 200 ms, whether its answer has arrived.
constexpr std::chrono::milliseconds kPollPause{10};
constexpr std::chrono::milliseconds kAnswerLimit{200};

const char* textOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

PacParser::PacParser(ProxyManagerServiceImpl* service, bool pacInitOption)
    : mServiceImpl(service),
      mPacInitOption(pacInitOption),
      mCache(std::make_unique<ProxyUrlCache>(kCacheCapacity, clearProxyUrlCacheCallBack, this)) {
  logLine(LOG_INFO, "PacParser-PacParser called ");
}

PacParser::~PacParser() {
  logLine(LOG_INFO, "PacParser-~PacParser called ");
  stop();
}

bool PacParser::start() {
  logLine(LOG_INFO, "PacParser-start called ");
  if (mRunning) {
    logLine(LOG_INFO, "PacParser-start already started");
    return true;
  }
  mRunning = true;
  if (mThread) {
    logLine(LOG_INFO, "PacParser-start pac process thread already started");
    return true;
  }
  mThread = std::make_shared<std::thread>([this] { pacProcessThreadFunc(); });
  return true;
}

bool PacParser::stop() {
  logLine(LOG_INFO, "PacParser-stop called ");
  mServiceImpl = nullptr;
  {
    // The worker thread reads the flag and begins its wait while it holds this mutex. So the thread
    // either sees the changed flag, or is already waiting and is woken.
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
    mHasEngine = false;
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
  logLine(LOG_INFO, "PacParser-pacProcessThreadFunc called ");
  while (mRunning) {
    waitForNotice();
    if (mNotified) runQueued();
  }
}

void PacParser::waitForNotice() {
  Lock lock(mWaitMutex);
  if (mNotified || !mRunning) return;
  const std::chrono::milliseconds wait = std::chrono::seconds(mWaitSeconds);
  logLine(LOG_INFO, "PacParser-pacProcessThreadFunc wait:%d", static_cast<int>(wait.count()));
  mCond.wait_until(lock.native(), std::chrono::system_clock::now() + wait);
}

// mAnswerGate is locked before the parser's mutexes, so that no answer of an old script enters the
// emptied cache. The wait mutex is not held during an evaluation: a caller of getProxyASync has
// only 200 ms to take it, and an evaluation may take longer.
void PacParser::runQueued() {
  const auto answers = shareAnswers();
  const Lock engineLock(mEngineMutex);
  pac_run_callbacks(mPac.get());
  mNotified = false;
}

void PacParser::notify(void* parser) {
  logLine(LOG_INFO, "PacParser-notify called ");
  if (parser == nullptr) {
    logLine(LOG_INFO, "PacParser-notify PacParser is NULL");
    return;
  }
  static_cast<PacParser*>(parser)->do_notify();
}

// Takes no lock, because the engine calls it under the engine's mutex. getProxyASync takes and
// releases the wait mutex after it has left the engine.
void PacParser::do_notify() {
  logLine(LOG_INFO, "PacParser-do_notify called ");
  mNotified = true;
  mCond.notify_one();
}

bool PacParser::hasCache() {
  const Lock lock(mCacheMutex);
  return mCache != nullptr;
}

ProxyUrlSettings PacParser::getProxy(const std::string& requestUrl) {
  logLine(LOG_NOTICE, "PacParser-getProxy requestUrl:%s", requestUrl.c_str());
  ProxyUrlSettings found;
  if (requestUrl.empty()) {
    logLine(LOG_ERR, "PacParser-getProxy request url is empty");
    return found;
  }
  const HeapText host(getHost(requestUrl));
  const std::string key = textOrEmpty(host.get());
  if (takeCached(key, found)) {
    logLine(LOG_NOTICE, "PacParser-getProxy get proxy url from cache");
    return found;
  }

  char* result = nullptr;
  {
    const Lock lock(mEngineMutex);
    if (mPac == nullptr) {
      logLine(LOG_WARNING, "PacParser-getProxy mPac is empty, may casued by pac file update");
    } else {
      pac_find_proxy_sync_n(mPac.get(), requestUrl.c_str(), key.c_str(), &result);
    }
  }
  if (result == nullptr) {
    logLine(LOG_WARNING, "PacParser-getProxy can't get proxy url for host:%s", key.c_str());
    return found;
  }
  proxyFound(result, this, const_cast<char*>(key.c_str()));
  takeCached(key, found);
  return found;
}

ProxyUrlSettings PacParser::getProxyASync(const std::string& requestUrl) {
  logLine(LOG_NOTICE, "PacParser-getProxyASync requestUrl:%s", requestUrl.c_str());
  ProxyUrlSettings found;
  if (requestUrl.empty() || !mHasEngine) {
    logLine(LOG_ERR, "PacParser-getProxyASync request url or mPac is empty");
    return found;
  }
  const HeapText host(getHost(requestUrl));
  const std::string key = textOrEmpty(host.get());
  if (takeCached(key, found)) {
    logLine(LOG_NOTICE, "PacParser-getProxyASync get proxy url from cache");
    return found;
  }
  notePending(key);
  std::chrono::milliseconds waited{0};
  if (queueQuestion(requestUrl, key, waited)) {
    {
      // Without this lock, the wake-up could be lost between the worker thread's test of the flag
      // and its wait.
      const Lock lock(mWaitMutex);
    }
    mCond.notify_one();
  }
  return awaitAnswer(key, waited);
}

// Another thread may hold the engine's mutex for a whole evaluation or reload. If this function
// does not get the mutex in time, the question is not queued.
bool PacParser::queueQuestion(const std::string& requestUrl, const std::string& key,
                              std::chrono::milliseconds& waited) {
  while (waited < kAnswerLimit) {
    if (mEngineMutex.try_lock()) {
      pac_find_proxy(mPac.get(), requestUrl.c_str(), key.c_str(), proxyFound, this);
      mEngineMutex.unlock();
      return true;
    }
    std::this_thread::sleep_for(kPollPause);
    waited += kPollPause;
  }
  return false;
}

// If a question has no answer, the engine reports nothing. The host of such a question stays in
// mPendingHosts until another host needs its place.
void PacParser::notePending(const std::string& key) {
  const Lock lock(mCacheMutex);
  if (mPendingHosts.size() >= kMaxPendingHosts && mPendingHosts.count(key) == 0) {
    mPendingHosts.erase(mPendingHosts.begin());
  }
  mPendingHosts[key] = false;
}

ProxyUrlSettings PacParser::awaitAnswer(const std::string& key, std::chrono::milliseconds waited) {
  ProxyUrlSettings found;
  while (mRunning && waited < kAnswerLimit) {
    if (takeCached(key, found)) return found;
    std::this_thread::sleep_for(kPollPause);
    waited += kPollPause;
  }
  if (waited >= kAnswerLimit) {
    logLine(LOG_ERR, "PacParser-getProxyASync waitting too long time");
  }
  return found;
}

bool PacParser::takeCached(const std::string& key, ProxyUrlSettings& found) {
  const Lock lock(mCacheMutex);
  return mCache->get(key, found);
}

void PacParser::proxyFound(char* result, void* parser, void* host) {
  const HeapText owned(result);
  logLine(LOG_INFO, "PacParser-proxyFound called ");
  if (parser == nullptr || host == nullptr) {
    logLine(LOG_INFO,
            "PacParser-proxyFound PacParser::proxyFound() pacparser or request url is null");
  }
  if (parser != nullptr) {
    static_cast<PacParser*>(parser)->proxy_Found(result, static_cast<const char*>(host));
  }
}

void PacParser::proxy_Found(const char* result, const char* host) {
  if (host == nullptr) {
    logLine(LOG_NOTICE, "PacParser-proxy_Found host:%s", "");
    return;
  }
  logLine(LOG_NOTICE, "PacParser-proxy_Found host:%s", host);
  const Lock lock(mCacheMutex);
  mPendingHosts.erase(host);
  OwnedSettings settings(proxys2ProxySettings(textOrEmpty(result)));
  mCache->set(host, settings.get());
  settings.release();  // the cache owns the texts now
}

ProxyUrlSettings PacParser::proxys2ProxySettings(const std::string& proxys) {
  return script_result::entriesOf(proxys);
}

ProxyUrlSetting PacParser::proxy2ProxySetting(std::string proxy) {
  return script_result::entryOf(std::move(proxy));
}

void PacParser::clearProxyUrlCache() {
  logLine(LOG_INFO, "PacParser-clearProxyUrlCache called ");
  const Lock lock(mCacheMutex);
  mCache->clearCache();
  mPendingHosts.clear();
}

void PacParser::clearProxyUrlCacheCallBack(ProxyUrlSettings& settings, void* context) {
  logLine(LOG_INFO, "PacParser-clearProxyUrlCacheCallBack called ");
  if (context != nullptr) clearProxySettings(settings);
}

void PacParser::clearProxySettings(ProxyUrlSettings& settings) {
  logLine(LOG_INFO, "PacParser-clearProxySettings called ");
  for (auto& setting : settings) cleanupProxySetting(&setting);
  settings.clear();
}
