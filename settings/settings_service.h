// proxymanager-settings as one object: reads the sources, decides, and hands over.
//
//   settings.conf, settings.d ─┐
//   network managers ──────────┼─> choose() ─> HandOver ─> the daemon
//   default routes ────────────┘       └─> ScriptServer, if a pushed script holds
//
// Everything runs on one thread in one event loop. Nothing here waits.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "settings/daemon_link.h"
#include "settings/file_watch.h"
#include "settings/hand_over.h"
#include "settings/pacrunner.h"
#include "settings/script_server.h"
#include "settings/settings_folder.h"
#include "settings/source_choice.h"

namespace settings {

class SettingsService final : DaemonLink::Listener {
 public:
  struct Places {
    SettingsPaths files;
    std::string runtimeFolder = "/run/proxymanager-settings";
    std::string pacFile;
    std::string resolverFile = "/etc/resolv.conf";
  };

  /// @param scripts a listening socket on loopback for scripts; empty: pushed scripts are unusable
  SettingsService(sd_event* event, sd_bus* bus, Places places, base::UniqueFd scripts);

  /// Reads the settings, takes the names on the bus and begins to hand over. Throws
  /// std::system_error.
  void start();

  /// Reads the settings again, as after a change of a file or SIGHUP.
  void reload();

 private:
  void daemonAppeared() override;
  void daemonVanished() override;
  void readFiles();
  void watchFiles();
  void decide();
  std::string publishedScript(const Choice& choice);
  std::string state();
  void watchRoutes(sd_event* event);
  void routesChanged();
  static int onRoute(sd_event_source*, int socket, std::uint32_t, void* self);
  static int onGetState(sd_bus_message* call, void* self, sd_bus_error*);

  sd_bus* mBus;
  Places mPlaces;
  DaemonLink mDaemon;
  HandOver mHandOver;
  PacRunner mPacRunner;
  std::unique_ptr<ScriptServer> mScripts;
  FileWatch mSettingsWatch;
  FileWatch mResolverWatch;
  FolderSettings mSettings;     ///< the last good ones
  FolderSettings mLastReading;  ///< with its problems
  DefaultRoutes mRoutes;
  Choice mChoice;
  std::string mLoggedReason;
  base::UniqueFd mRouteSocket;
  EventSource mRouteSource;
  BusSlot mObject;
};

}  // namespace settings
