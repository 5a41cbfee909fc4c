// proxymanager-settings as one object: it reads the sources, chooses one of them, and hands its
// configuration over to the daemon.
//
//   settings.conf, settings.d ─┐
//   network managers ──────────┼─> choose() ─> HandOver ─> the daemon
//   default routes ────────────┘       └─> ScriptServer, if a pushed script is in force
//
// Everything runs on one thread in one event loop. No function blocks.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "settings/daemon_link.h"
#include "settings/file_watch.h"
#include "settings/hand_over.h"
#include "settings/pacrunner.h"
#include "settings/script_server.h"
#include "settings/settings_folder.h"
#include "settings/source_choice.h"

namespace settings {

/// At its start, the service does not have the settings of network managers, which push them again
/// a little later. So the service waits this long before it hands anything over.
inline constexpr std::chrono::milliseconds kGatherTime{500};
/// Maximum number of GetState calls that wait for the daemon's configuration.
inline constexpr std::size_t kMaxStateCalls = 16;
/// How long a GetState call waits. After that, it is answered without the configuration.
inline constexpr std::chrono::seconds kStateLimit{5};

class SettingsService final : DaemonLink::Listener {
 public:
  struct Places {
    SettingsPaths files;
    std::string runtimeFolder = "/run/proxymanager-settings";
    std::string pacFile;
    std::string resolverFile = "/etc/resolv.conf";
  };

  /// @param bus for everything except questions
  /// @param questions a second connection, for the questions of other programs to the daemon
  /// @param scripts a listening socket on loopback for scripts; if it is empty, pushed scripts are
  /// unusable
  SettingsService(sd_event* event, sd_bus* bus, sd_bus* questions, Places places,
                  base::UniqueFd scripts);

  /// Reads the settings, requests the names on the bus and starts to hand over. Throws
  /// std::system_error.
  void start();

  /// Reads the settings again, at SIGHUP, and replaces a configuration that another program has set
  /// in the meantime.
  void reload();

 private:
  void daemonAppeared() override;
  void daemonVanished() override;
  void filesChanged();
  bool readFiles();
  bool watchFiles();
  void decide();
  Choice chosen(bool scriptsCount) const;
  bool publishOrWithdraw();
  bool hasNetworkManager();
  int getState(sd_bus_message* call, sd_bus_error* error);
  void answerStateCalls(const std::optional<Configuration>& daemon);
  std::string state(const std::optional<Configuration>& daemon) const;
  void watchRoutes(sd_event* event);
  void routesChanged();
  static int onRoute(sd_event_source*, int socket, std::uint32_t, void* self);
  static int onGetState(sd_bus_message* call, void* self, sd_bus_error* error);

  sd_bus* mBus;
  Places mPlaces;
  DaemonLink mDaemon;
  HandOver mHandOver;
  PacRunner mPacRunner;
  std::unique_ptr<ScriptServer> mScripts;
  FileWatch mSettingsWatch;
  FileWatch mResolverWatch;
  FolderSettings mSettings;  ///< in force: the last settings without an error, if there were any
  bool mHasGoodSettings = false;
  FolderSettings mLastReading;  ///< the last reading, with its problems
  DefaultRoutes mRoutes;
  Choice mChoice;
  std::string mLoggedReason;
  base::UniqueFd mRouteSocket;
  EventSource mRouteSource;
  BusSlot mObject;
  bool mIsGathering = false;
  EventTimer mGatherTimer;
  EventTimer mServeTimer;  ///< runs after a script could not be served
  std::size_t mServeFailures = 0;
  std::vector<BusMessage> mStateCalls;
};

}  // namespace settings
