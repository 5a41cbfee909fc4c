#include "service/proxy_manager_service_impl.h"

#include <chrono>
#include <exception>
#include <utility>

#include "base/bus_names.h"
#include "base/log_line.h"
#include "base/paths.h"
#include "fetcher/pac_fetcher.h"
#include "pac/pac_parser.h"
#include "platform/process/thread_name.h"

namespace {

constexpr int kFetchIntervalSeconds = 1800;
// `proxymanagerctl status` and `wait` listen for 5 s, so with this pause they always receive an
// announcement.
constexpr std::chrono::seconds kAnnouncementPause{2};
constexpr std::int32_t kServiceRuns = 1;

std::string textOf(const char* text) {
  return text == nullptr ? std::string() : text;
}

void assign(std::string& text, const char* value) {
  if (value != nullptr) text = value;
}

char* heapText(const std::string& text) {
  return string2Char(text.data(), static_cast<std::int32_t>(text.size()));
}

// A new object; null if it cannot be made. The caller starts the object.
template <typename Active, typename... Arguments>
std::unique_ptr<Active> makeActive(Arguments&&... arguments) {
  try {
    return std::make_unique<Active>(std::forward<Arguments>(arguments)...);
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace

ProxyManagerServiceImpl::ProxyManagerServiceImpl()
    : mBusHelper(DBus::get_helper()),
      mDbusHandler(this, mBusHelper->connection(), base::kObjectPath) {
  logLine(LOG_INFO, "ProxyManagerServiceImpl-ProxyManagerServiceImpl called ");
  mDbusHandler.queueCalls();
  mBusHelper->setTurn([this] { return mDbusHandler.takeTurn(); });
  mBusHelper->requestName(base::kBusName);
  const Lock lock(mConfigMutex);
  initProxyConfig(mConfig.get());
  mPacFileName = base::kPacFile;
}

ProxyManagerServiceImpl::~ProxyManagerServiceImpl() {
  logLine(LOG_INFO, "ProxyManagerServiceImpl-~ProxyManagerServiceImpl called ");
  stop();
}

std::int32_t ProxyManagerServiceImpl::start() {
  logLine(LOG_INFO, "ProxyManagerServiceImpl-start called ");
  startFetcher();
  startParser();
  mDbusHandler.attachService(*this);
  mBusHelper->startDispatching();
  if (mStartupEventThread) {
    logLine(LOG_INFO, "ProxyManagerServiceImpl-start pac process thread already started");
  } else {
    mStartupEventThread = std::make_shared<std::thread>([this] { startupEventThreadFunc(); });
  }
  return 0;
}

void ProxyManagerServiceImpl::startFetcher() {
  mPacFetcher = makeActive<PACFetcher>(this, mPacFileName, kFetchIntervalSeconds);
  if (mPacFetcher) {
    mPacFetcher->start();
  } else {
    logLine(LOG_ERR, "ProxyManagerServiceImpl-start mPacFetcher is null");
  }
}

void ProxyManagerServiceImpl::startParser() {
  mPacParser = makeActive<PacParser>(this, false);
  if (mPacParser) {
    mPacParser->start();
  } else {
    logLine(LOG_ERR, "ProxyManagerServiceImpl-start mPacFetcher is null");
  }
}

void ProxyManagerServiceImpl::stop() {
  mDbusHandler.refuseCalls();  // before the log line: no request begins after the line
  logLine(LOG_INFO, "ProxyManagerServiceImpl-stop called ");
  mDbusHandler.detachService();
  {
    const Lock lock(mConfigMutex);
    mConfig.clear();
  }
  mPacFetcher.reset();
  mPacParser.reset();
  if (mStartupEventThread) {
    endAnnouncements();
    mStartupEventThread->join();
    mStartupEventThread.reset();
  }
  mStartupEventDone = false;
  mBusHelper->stopDispatching();
}

com::zentu::ProxyConfigTexts ProxyManagerServiceImpl::getProxyConfig() {
  logLine(LOG_INFO, "ProxyManagerServiceImpl-getProxyConfig called ");
  const Lock lock(mConfigMutex);
  com::zentu::ProxyConfigTexts texts;
  texts._1 = proxyMode2Str(mConfig->mode);
  // No temporary text is made, because it would leave a copy of the password in memory.
  assign(texts._2, mConfig->proxyurl);
  assign(texts._3, mConfig->pacurl);
  texts._4 = mConfig->enableauth ? "y" : "n";
  assign(texts._5, mConfig->userName);
  assign(texts._6, mConfig->password);
  return texts;
}

std::int32_t ProxyManagerServiceImpl::updateProxyConfig(
    const std::string& mode, const std::string& proxyurl, const std::string& pacUrl,
    const bool& enableauth, const std::string& userName, const std::string& password) {
  logLine(LOG_NOTICE, "ProxyManagerServiceImpl-updateProxyConfig mode:%s, proxyurl:%s pacurl:%s",
          mode.c_str(), proxyurl.c_str(), pacUrl.c_str());
  endAnnouncements();
  const Lock lock(mConfigMutex);
  const ProxyMode previous = mConfig->mode;
  cleanupProxyConfig(mConfig.get());
  mConfig->mode = str2ProxyMode(mode.c_str());
  logLine(LOG_NOTICE,
          "ProxyManagerServiceImpl-updateProxyConfig notify clear cache new mode:%d, pre mode:%d",
          mConfig->mode, previous);
  emitClearcache();
  if (mConfig->mode == manual) {
    mConfig->proxyurl = heapText(proxyurl);
  } else if (mConfig->mode == pacurl) {
    mConfig->pacurl = heapText(pacUrl);
  }
  // `enableauth` of the stored configuration stays false, so getProxyconfig still returns "n".
  if (enableauth) {
    mConfig->userName = heapText(userName);
    mConfig->password = heapText(password);
  }
  if (mPacFetcher) mPacFetcher->updateProxyMgrConfig(*mConfig);
  return 0;
}

// No lock is needed: this function and the updates run on the bus thread, and stop() changes the
// configuration only after the last call.
std::vector<std::string> ProxyManagerServiceImpl::getProxyUrl(const std::string& requestUrl)
    PM_NO_THREAD_SAFETY_ANALYSIS {
  logLine(LOG_NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxy mode:%d, request url:%s",
          mConfig->mode, requestUrl.c_str());
  auto urls = getProxyUrlWithoutScript();
  if (mConfig->mode == pacurl || mConfig->mode == wpad) appendScriptAnswer(requestUrl, urls);
  return urls;
}

// No lock is needed, for the same reason as in getProxyUrl().
std::vector<std::string> ProxyManagerServiceImpl::getProxyUrlWithoutScript()
    PM_NO_THREAD_SAFETY_ANALYSIS {
  std::vector<std::string> urls{proxyMode2Str(mConfig->mode)};
  if (mConfig->mode == pacurl || mConfig->mode == wpad) return urls;
  if (mConfig->mode == manual && mConfig->proxyurl != nullptr) {
    logLine(LOG_NOTICE, "ProxyManagerServiceImpl-getProxyUrl manual, proxyUrl:%s",
            mConfig->proxyurl);
    urls.emplace_back(mConfig->proxyurl);
  } else {
    urls.emplace_back();
  }
  return urls;
}

void ProxyManagerServiceImpl::appendScriptAnswer(const std::string& requestUrl,
                                                 std::vector<std::string>& urls) {
  if (!mPacParser) return;
  // The cache owns the texts of the list. This lock prevents a new script from emptying the cache
  // before the texts are copied.
  const auto answers = mPacParser->shareAnswers();
  for (const auto& entry : mPacParser->getProxy(requestUrl)) {
    logLine(LOG_NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxyUrl:%s", entry.url);
    urls.push_back(textOf(entry.url));
  }
}

void ProxyManagerServiceImpl::pacFileUpdated() {
  logLine(LOG_NOTICE, "ProxyManagerServiceImpl-pacFileUpdated pacFileName:%s",
          mPacFileName.c_str());
  if (mPacParser) {
    mPacParser->parsePacFile(mPacFileName);
  } else {
    logLine(LOG_ERR, "ProxyManagerServiceImpl-pacFileUpdated pacparser is null pacFileName:%s",
            mPacFileName.c_str());
  }
}

bool ProxyManagerServiceImpl::hasScript() const {
  return mPacParser && mPacParser->hasEngine();
}

void ProxyManagerServiceImpl::pacContentUpdated() {
  logLine(LOG_NOTICE, "ProxyManagerServiceImpl-pacContentUpdated pacFileName:%s",
          mPacFileName.c_str());
  emitClearcache();
}

void ProxyManagerServiceImpl::emitClearcache() {
  mBusHelper->run([this] { mDbusHandler.notifyClearcache(); });
}

void ProxyManagerServiceImpl::startupEventThreadFunc() {
  pthread_name_np(gettid(), "pm-announce");
  logLine(LOG_INFO, "ProxyManagerServiceImpl-startupEventThreadFunc called ");
  while (!mStartupEventDone) {
    // The flag is read again on the bus thread. An update sets the flag on the same thread, so no
    // announcement follows the reply to an update.
    mBusHelper->run([this] {
      if (!mStartupEventDone) mDbusHandler.ProxyMgrStateEvent(kServiceRuns);
    });
    waitForNextAnnouncement();
  }
}

void ProxyManagerServiceImpl::waitForNextAnnouncement() {
  Lock lock(mAnnounceMutex);
  mAnnounceCond.wait_for(lock.native(), kAnnouncementPause,
                         [this] { return mStartupEventDone.load(); });
}

// The announcing thread reads the flag and begins its wait while it holds the mutex. So the thread
// either sees that the flag is set, or is already waiting and is woken.
void ProxyManagerServiceImpl::endAnnouncements() {
  {
    const Lock lock(mAnnounceMutex);
    mStartupEventDone = true;
  }
  mAnnounceCond.notify_one();
}
