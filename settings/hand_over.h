// Hands the wanted configuration to the daemon, and again when it is needed.
//
// - Once after each appearance of the daemon, even if nothing differs: a daemon that nobody
//   configures announces itself for ever.
// - After a change of a source, only if the daemon's configuration differs.
// - Again, if the script has not arrived: the daemon fetches on request only, and at boot it is
//   usually configured before the network is up.
// - Again on a timer, if the administrator wants changed scripts to be seen.
// What another program sets over the bus stays until the daemon's next start or until the source
// changes: nothing here follows the daemon's configuration.
#pragma once

#include <systemd/sd-event.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "settings/configuration.h"
#include "settings/daemon_link.h"
#include "settings/event_timer.h"

namespace settings {

/// Pauses after which a script that has not arrived is asked for again. The last one repeats.
inline constexpr std::array kScriptPauses{std::chrono::seconds{10},  std::chrono::seconds{30},
                                          std::chrono::seconds{60},  std::chrono::seconds{120},
                                          std::chrono::seconds{300}, std::chrono::seconds{600}};
/// The same after a default route or the resolver's configuration has changed: several changes come
/// together when a link comes up.
inline constexpr std::chrono::seconds kNetworkPause{1};
/// First pause after a hand-over that failed; each further one doubles it.
inline constexpr std::chrono::seconds kFirstFailurePause{1};
inline constexpr std::chrono::seconds kLongestFailurePause{300};
/// A refresh comes up to this part of its interval later, so that devices that were switched on
/// together do not ask one server together.
inline constexpr int kRefreshSpread = 10;

/// The pause before the retry with this number, counted from 0.
std::chrono::seconds scriptPause(std::size_t retry);
std::chrono::seconds failurePause(std::size_t failures);
/// The pause before the next refresh: `interval` and a random part of it, up to kRefreshSpread.
std::chrono::milliseconds refreshPause(std::chrono::seconds interval);

/// Whether the script file is newer than the hand-over at `since`. False if there is none.
bool isScriptNewer(const std::string& path, const timespec& since);

/// Runs in the event loop's thread. Logs what it does.
class HandOver {
 public:
  /// @param pacFile the daemon's script file
  HandOver(sd_event* event, DaemonLink& daemon, std::string pacFile);

  /// A source wants this configuration. The first call makes the service ready; before it, nothing
  /// is handed over.
  void want(const Configuration& configuration);
  void daemonAppeared();
  void daemonVanished();
  /// A default route, a link or the resolver's configuration has changed.
  void networkChanged();
  /// 0: never.
  void refreshEvery(std::chrono::seconds interval);
  /// Hands over if the daemon's configuration differs from the wanted one.
  void check();

  /// For the state that proxymanagerctl shows.
  std::optional<std::time_t> lastHandOver() const;
  const std::string& lastProblem() const { return mProblem; }
  bool isForeign() const { return mIsForeign; }
  /// Whether the daemon's `configuration` is the one that was handed over.
  bool isOurs(const Configuration& configuration) const;

 private:
  enum class Due { kNothing, kIfDifferent, kIfScriptIsMissing, kIfOurs, kAlways };

  void schedule(Due due);
  void proceed();
  void compare(Due due);
  void handOver();
  void handedOver(const std::string& problem);
  void failed(const std::string& problem, Due due);
  bool usesScript() const;
  void setRefreshTimer();

  DaemonLink& mDaemon;
  std::string mPacFile;
  std::optional<Configuration> mWanted;
  std::optional<Configuration> mHandedOver;  ///< to the daemon that is there
  Due mDue = Due::kNothing;
  bool mIsCalling = false;
  bool mIsForeign = false;  ///< the daemon's configuration was another program's when last seen
  std::uint64_t mAppearance = 0;  ///< counts the daemon's appearances: replies of old ones are late
  std::size_t mFailures = 0;
  std::size_t mScriptRetry = 0;
  timespec mHandOverTime{};  ///< CLOCK_REALTIME, as the file's time
  std::string mProblem;
  std::chrono::seconds mRefresh{0};
  EventTimer mFailureTimer;
  EventTimer mScriptTimer;
  EventTimer mRefreshTimer;
};

}  // namespace settings
