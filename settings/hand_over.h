// Hands the wanted configuration over to the daemon, and repeats this when needed.
//
// - Once after each start of the daemon, even if nothing differs: an unconfigured daemon announces
//   itself until a program configures it.
// - After a change of a source, in two cases only: the daemon's configuration differs; or another
//   program set the same configuration, and its script may be missing.
// - Again, if the script has not arrived. The daemon fetches only on request, and at boot it is
//   usually configured before the network is up.
// - Again on a timer, if the administrator wants refreshes.
//
// If another program configures the daemon over the bus, that program's configuration stays until
// the daemon's next start or until a source changes.
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

/// Pauses before each retry for a script that has not arrived. The last pause repeats.
inline constexpr std::array kScriptPauses{std::chrono::seconds{10},  std::chrono::seconds{30},
                                          std::chrono::seconds{60},  std::chrono::seconds{120},
                                          std::chrono::seconds{300}, std::chrono::seconds{600}};
/// The pause after a change of a default route or of the resolver's configuration. When a link
/// comes up, several changes come together.
inline constexpr std::chrono::seconds kNetworkPause{1};
/// Pause after the first failed hand-over. Each further failure doubles it.
inline constexpr std::chrono::seconds kFirstFailurePause{1};
inline constexpr std::chrono::seconds kLongestFailurePause{300};
/// A refresh comes later by up to 1/10 of its interval. So devices that were switched on together
/// do not ask the same server at the same time.
inline constexpr int kRefreshSpread = 10;

/// The pause before the retry with this number, counted from 0.
std::chrono::seconds scriptPause(std::size_t retry);
std::chrono::seconds failurePause(std::size_t failures);
/// The pause before the next refresh: `interval`, plus a random time of up to 1/kRefreshSpread of
/// it.
std::chrono::milliseconds refreshPause(std::chrono::seconds interval);

/// Whether the script file is newer than the hand-over at `since`. False if there is no script
/// file, if its time is in the future, or if it belongs neither to root nor to `daemonsUser`. Any
/// user may create a file in /tmp, and the daemon does not read the file of another user.
/// @param daemonsUser empty if it is unknown
bool isScriptNewer(const std::string& path, const timespec& since,
                   std::optional<uid_t> daemonsUser);

/// Runs in the event loop's thread. Logs what it does.
class HandOver {
 public:
  /// @param pacFile the daemon's script file
  HandOver(sd_event* event, DaemonLink& daemon, std::string pacFile);

  /// Sets the configuration that a source wants. The first call makes the service ready. Before the
  /// first call, the service hands nothing over. A change ends the pause after a failure.
  void want(const Configuration& configuration);
  /// While `leaves` is true, the service replaces only two configurations: mode off of an
  /// unconfigured daemon, and a configuration that this service itself has handed over.
  void leaveOthers(bool leaves) { mLeavesOthers = leaves; }
  void daemonAppeared();
  void daemonVanished();
  /// A default route, a link or the resolver's configuration has changed.
  void networkChanged();
  /// Sets the refresh interval. With 0, there are no refreshes.
  void refreshEvery(std::chrono::seconds interval);
  /// Hands over if the daemon's configuration differs from the wanted one. Ends the pause after a
  /// failure.
  void check();

  /// The time at which the service handed over the configuration that the daemon has now, or found
  /// this configuration at the daemon. proxymanagerctl shows the time. Returns nothing if the
  /// daemon has no configuration of this service.
  std::optional<std::time_t> lastHandOver() const;
  const std::string& lastProblem() const { return mProblem; }
  bool isForeign() const { return mIsForeign; }
  /// Whether this service handed over `configuration`, the daemon's present configuration.
  bool isOurs(const Configuration& configuration) const;

 private:
  enum class Due { kNothing, kIfDifferent, kIfScriptIsMissing, kIfOurs, kAlways };

  void schedule(Due due);
  void proceed();
  void compare(Due due);
  bool keeps(Due due, const Configuration& daemons);
  void handOver();
  void handedOver(const std::string& problem);
  void failed(const std::string& problem, Due due);
  bool hasScriptArrived() const;
  bool usesScript() const;
  void setRefreshTimer();
  void noteHandedOver(const Configuration& configuration);

  DaemonLink& mDaemon;
  std::string mPacFile;
  std::optional<Configuration> mWanted;
  std::optional<Configuration> mHandedOver;  ///< the configuration that the running daemon got
  Due mDue = Due::kNothing;
  bool mIsCalling = false;
  bool mLeavesOthers = false;
  bool mIsForeign = false;  ///< at the last look, the daemon had another program's configuration
  std::uint64_t mAppearance = 0;  ///< counts the daemon's starts, to recognise late replies
  std::size_t mFailures = 0;
  std::size_t mScriptRetry = 0;
  /// True if the network has changed, and mScriptTimer will fire kNetworkPause after this change.
  bool mIsNetworkPause = false;
  /// If the daemon's script file is newer than this time, it contains the script of the
  /// configuration that was handed over. The clock is CLOCK_REALTIME, as for the time of a file.
  timespec mScriptSince{};
  std::time_t mHandedOverAt = 0;  ///< see lastHandOver()
  std::string mProblem;
  std::chrono::seconds mRefresh{0};
  EventTimer mFailureTimer;
  EventTimer mScriptTimer;
  EventTimer mRefreshTimer;
};

}  // namespace settings
