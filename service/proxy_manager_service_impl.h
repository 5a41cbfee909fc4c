// The daemon's central object: owns the configuration in force, the bus object, the fetcher and the
// parser, and answers what the bus asks.
//
// Nothing restores a configuration at start: the mode is off until a client says otherwise, and
// until then an announcement goes out every two seconds. Every update tells clients to drop what
// they cached, whether or not anything changed. Three threads come here: the bus thread (the
// requests), the fetcher's (pacFileUpdated, and through the parser pacContentUpdated) and the
// announcing one. mConfigMutex guards the configuration; getProxyUrl reads it without, on the
// thread that replaces it, and before stop() releases it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "dbus/proxy_manager_dbus_handler.h"
#include "platform/bus/bus_helper.h"
#include "platform/process/sl_service.h"
#include "service/records/proxy_config_owner.h"

class PACFetcher;
class PacParser;

class ProxyManagerServiceImpl : public SlService {
 public:
  /// Connects to the bus, registers the object and asks for the bus name. Throws DBus::Error where
  /// one of them is not to be had, or another process owns the name. Main thread.
  ProxyManagerServiceImpl();
  ~ProxyManagerServiceImpl() override;
  ProxyManagerServiceImpl(const ProxyManagerServiceImpl&) = delete;
  ProxyManagerServiceImpl& operator=(const ProxyManagerServiceImpl&) = delete;

  /// Lets the request in flight end, then ends the fetcher, the parser, the announcements and the
  /// dispatching. Waits for a download walk that runs. Requests that come meanwhile are answered as
  /// by a handler without a service. Main thread.
  void stop() override;
  /// Starts fetcher, parser, dispatching and announcements. Main thread. Throws std::system_error
  /// where a thread cannot be had. @return 0
  std::int32_t start() override;

  /// The configuration in force, a text that is not set as "". Any thread.
  com::zentu::ProxyConfigTexts getProxyConfig() PM_EXCLUDES(mConfigMutex);

  /// Replaces the configuration: keeps the URL of the given mode alone, and user name and password
  /// only with `enableauth`, which itself is not kept. Emits notifyClearcache, then hands the
  /// configuration to the fetcher: waits while a download walk runs (30 s a candidate). Bus thread.
  /// @return 0
  std::int32_t updateProxyConfig(const std::string& mode, const std::string& proxyurl,
                                 const std::string& pacurl, const bool& enableauth,
                                 const std::string& userName, const std::string& password)
      PM_EXCLUDES(mConfigMutex);

  /// The mode's text, then what to use for `requestUrl`: in mode off an empty text, in mode manual
  /// the proxy URL, in the PAC modes the entries of the script's answer. Waits for an evaluation, 5
  /// s at most. Bus thread.
  std::vector<std::string> getProxyUrl(const std::string& requestUrl);

  /// What getProxyUrl() returns if the script has no answer. Never waits. Bus thread.
  std::vector<std::string> getProxyUrlWithoutScript();

  /// A new PAC file is in place. Fetcher thread.
  void pacFileUpdated();

  /// The PAC file's content differs from the one before. Fetcher thread.
  void pacContentUpdated();

  /// Body of the announcing thread: ProxyMgrStateEvent(1) every two seconds until the first
  /// configuration or stop().
  void startupEventThreadFunc();

 private:
  void startFetcher();
  void startParser();
  void appendScriptAnswer(const std::string& requestUrl, std::vector<std::string>& urls);
  void emitClearcache();
  void endAnnouncements() PM_EXCLUDES(mAnnounceMutex);
  void waitForNextAnnouncement() PM_EXCLUDES(mAnnounceMutex);

  std::shared_ptr<DBus::BusHelper> mBusHelper;
  ProxyManagerDbusHandler mDbusHandler;
  std::unique_ptr<PACFetcher> mPacFetcher;
  std::unique_ptr<PacParser> mPacParser;
  std::string mPacFileName;
  Mutex mConfigMutex;
  ProxyConfigOwner mConfig PM_GUARDED_BY(mConfigMutex);
  Mutex mAnnounceMutex;  // the wait between two announcements; nothing is taken under it
  std::condition_variable mAnnounceCond;
  std::atomic<bool> mStartupEventDone{false};
  std::shared_ptr<std::thread> mStartupEventThread;
};
