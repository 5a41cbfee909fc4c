// The daemon's central object. It owns the configuration in force, the bus object, the fetcher and
// the parser, and answers the calls from the bus.
//
// The service restores no configuration at start. Until a client sets a configuration, the mode is
// off, and the service announces itself every two seconds. Every update asks clients to drop their
// cached answers, even if nothing has changed. Three threads call this class: the bus thread
// (requests), the fetcher thread (pacFileUpdated, and pacContentUpdated through the parser) and the
// announcing thread. mConfigMutex guards the configuration. getProxyUrl reads the configuration
// without the mutex: it runs on the same thread as the updates, and stop() releases the
// configuration only after the last request.
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
  /// Connects to the bus, registers the object and asks for the bus name. Throws DBus::Error if one
  /// of these steps fails or if another process owns the name. Main thread.
  ProxyManagerServiceImpl();
  ~ProxyManagerServiceImpl() override;
  ProxyManagerServiceImpl(const ProxyManagerServiceImpl&) = delete;
  ProxyManagerServiceImpl& operator=(const ProxyManagerServiceImpl&) = delete;

  /// Waits for the request in progress, then ends the fetcher, the parser, the announcements and
  /// the dispatching. Waits for a transfer in progress (30 s at most) and for the load of its
  /// script (5 s at most); the other candidates of the walk (the search for a script) fail at once.
  /// Requests that arrive during the stop get the answers of a bus object without a service
  /// (dbus/proxy_manager_dbus_handler.h). Main thread.
  void stop() override;
  /// Starts fetcher, parser, dispatching and announcements. Main thread. Throws std::system_error
  /// if a thread cannot be started. @return 0
  std::int32_t start() override;

  /// The configuration in force; a text that is not set is "". Any thread.
  com::zentu::ProxyConfigTexts getProxyConfig() PM_EXCLUDES(mConfigMutex);

  /// Replaces the configuration. Keeps only the URL of the given mode. Keeps user name and password
  /// only if `enableauth` is true. Does not keep the flag `enableauth` itself. Emits
  /// notifyClearcache, then passes the configuration to the fetcher. Never waits for a download,
  /// but may wait for the load of a script that is being installed (5 s at most). Bus thread.
  /// @return 0
  std::int32_t updateProxyConfig(const std::string& mode, const std::string& proxyurl,
                                 const std::string& pacurl, const bool& enableauth,
                                 const std::string& userName, const std::string& password)
      PM_EXCLUDES(mConfigMutex);

  /// The first text is the mode. The texts after it are the answer for `requestUrl`: an empty text
  /// in mode off, the proxy URL in mode manual, the entries of the script's answer in the PAC
  /// modes. Waits for an evaluation, 5 s at most. Bus thread.
  std::vector<std::string> getProxyUrl(const std::string& requestUrl);

  /// The result that getProxyUrl() returns if the script has no answer. Never waits. Bus thread.
  std::vector<std::string> getProxyUrlWithoutScript();

  /// Called when a new PAC file is in place. Fetcher thread.
  void pacFileUpdated();

  /// Whether a script is loaded. Any thread; never waits.
  bool hasScript() const;

  /// Called when the content of the PAC file has changed. Fetcher thread.
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
  Mutex mAnnounceMutex;  // guards the wait between two announcements; a thread that holds it takes
                         // no other lock
  std::condition_variable mAnnounceCond;
  std::atomic<bool> mStartupEventDone{false};
  std::shared_ptr<std::thread> mStartupEventThread;
};
