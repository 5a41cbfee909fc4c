#include "settings/hand_over.h"

#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <utility>

#include "base/log_line.h"

namespace settings {

namespace {

/// The present time, by the clock that file times use.
timespec fileTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now;
}

}  // namespace

std::chrono::seconds scriptPause(std::size_t retry) {
  return kScriptPauses[std::min(retry, kScriptPauses.size() - 1)];
}

std::chrono::seconds failurePause(std::size_t failures) {
  const auto doublings = std::min<std::size_t>(failures, 16);
  return std::min(kFirstFailurePause * (std::int64_t{1} << doublings), kLongestFailurePause);
}

std::chrono::milliseconds refreshPause(std::chrono::seconds interval) {
  static std::minstd_rand random(std::random_device{}());
  const std::chrono::milliseconds least = interval;
  std::uniform_int_distribution<std::int64_t> spread(0, least.count() / kRefreshSpread);
  return least + std::chrono::milliseconds{spread(random)};
}

bool isScriptNewer(const std::string& path, const timespec& since,
                   std::optional<uid_t> daemonsUser) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_uid != 0 && status.st_uid != daemonsUser) return false;
  const timespec now = fileTime();
  const std::pair time(status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
  return time > std::pair(since.tv_sec, since.tv_nsec) &&
         time <= std::pair(now.tv_sec, now.tv_nsec);
}

HandOver::HandOver(sd_event* event, DaemonLink& daemon, std::string pacFile)
    : mDaemon(daemon),
      mPacFile(std::move(pacFile)),
      mFailureTimer(event, [this] { proceed(); }),
      mScriptTimer(event,
                   [this] {
                     mIsNetworkPause = false;
                     schedule(Due::kIfScriptIsMissing);
                   }),
      mRefreshTimer(event, [this] {
        setRefreshTimer();
        if (usesScript()) schedule(Due::kIfOurs);
      }) {}

void HandOver::want(const Configuration& configuration) {
  const bool isFirst = !mWanted.has_value();
  if (!isFirst && *mWanted == configuration) return;
  mWanted = configuration;
  mScriptRetry = 0;
  mFailureTimer.cancel();
  schedule(isFirst ? Due::kAlways : Due::kIfDifferent);
}

void HandOver::daemonAppeared() {
  mAppearance++;
  mIsCalling = false;
  mHandedOver.reset();
  mFailures = 0;
  mScriptRetry = 0;
  mFailureTimer.cancel();
  schedule(Due::kAlways);
}

void HandOver::daemonVanished() {
  mAppearance++;
  mIsCalling = false;
  mHandedOver.reset();
  mDue = Due::kNothing;
  mFailureTimer.cancel();
  mScriptTimer.cancel();
  mIsNetworkPause = false;
}

// A route that changes again and again must not postpone the retry forever.
void HandOver::networkChanged() {
  if (!mDaemon.isThere() || !usesScript() || !mHandedOver) return;
  mScriptRetry = 0;
  if (std::exchange(mIsNetworkPause, true)) return;
  mScriptTimer.set(kNetworkPause);
}

void HandOver::refreshEvery(std::chrono::seconds interval) {
  if (interval == mRefresh) return;
  mRefresh = interval;
  setRefreshTimer();
}

void HandOver::check() {
  if (!mWanted) return;
  mFailureTimer.cancel();
  schedule(Due::kIfDifferent);
}

std::optional<std::time_t> HandOver::lastHandOver() const {
  if (!mHandedOver) return std::nullopt;
  return mHandedOverAt;
}

bool HandOver::isOurs(const Configuration& configuration) const {
  return !mHandedOver || *mHandedOver == configuration;
}

bool HandOver::hasScriptArrived() const {
  return isScriptNewer(mPacFile, mScriptSince, mDaemon.user());
}

bool HandOver::usesScript() const {
  return mWanted && (mWanted->mode == Mode::kPacUrl || mWanted->mode == Mode::kWpad);
}

void HandOver::setRefreshTimer() {
  if (mRefresh.count() == 0) {
    mRefreshTimer.cancel();
    return;
  }
  mRefreshTimer.set(refreshPause(mRefresh));
}

// A stronger reason replaces a weaker one.
void HandOver::schedule(Due due) {
  mDue = std::max(mDue, due);
  proceed();
}

void HandOver::proceed() {
  if (mIsCalling || !mWanted || !mDaemon.isThere() || mFailureTimer.isSet()) return;
  switch (const Due due = std::exchange(mDue, Due::kNothing)) {
    case Due::kNothing:
      break;
    case Due::kIfScriptIsMissing:
      if (mHandedOver && !hasScriptArrived()) compare(due);
      break;
    case Due::kIfDifferent:
    case Due::kIfOurs:
      compare(due);
      break;
    case Due::kAlways:
      if (mLeavesOthers) {
        compare(due);
      } else {
        handOver();
      }
      break;
  }
}

void HandOver::compare(Due due) {
  mIsCalling = true;
  mDaemon.read(
      [this, due, appearance = mAppearance](const auto& configuration, const std::string& problem) {
        if (appearance != mAppearance) return;
        mIsCalling = false;
        if (!configuration) {
          failed(problem, due);
          return;
        }
        if (!keeps(due, *configuration)) {
          handOver();
          return;
        }
        mFailures = 0;
        mProblem.clear();
        proceed();
      });
}

/// Whether the daemon keeps its configuration `daemons`, so that nothing is handed over.
bool HandOver::keeps(Due due, const Configuration& daemons) {
  const bool isForeign = mHandedOver && daemons != *mHandedOver;
  mIsForeign = isForeign && due != Due::kIfDifferent;
  if (mLeavesOthers && (mHandedOver ? isForeign : daemons.mode != Mode::kOff)) {
    logLine(LOG_INFO, "settings: the daemon keeps its configuration until the files are repaired");
    return true;
  }
  if (mIsForeign) {
    logLine(LOG_INFO, "settings: another program has changed the configuration; it stays");
    return true;
  }
  if (due != Due::kIfDifferent || daemons != *mWanted) return false;
  // If another program set this configuration, it is unknown whether its script has arrived. The
  // script's time can be compared only with the time of a hand-over of this service.
  if (usesScript() && mHandedOver != mWanted) return false;
  // From now on, the service treats this configuration as its own, even if another program set it.
  if (mHandedOver != daemons) noteHandedOver(daemons);
  return true;
}

void HandOver::noteHandedOver(const Configuration& configuration) {
  mHandedOver = configuration;
  mHandedOverAt = std::time(nullptr);
}

void HandOver::handOver() {
  if (mIsCalling) return;
  mIsCalling = true;
  // If the script has arrived, the next retry has the shortest pause again, because a refresh may
  // find that the script is gone.
  if (hasScriptArrived()) mScriptRetry = 0;
  const Configuration configuration = *mWanted;
  const timespec before = fileTime();
  mDaemon.update(configuration, [this, configuration, before,
                                 appearance = mAppearance](const std::string& problem) {
    if (appearance != mAppearance) return;
    mIsCalling = false;
    if (problem.empty()) {
      // While the call waited, the daemon may have stored the script of the previous configuration.
      // So for a new configuration, only a script that arrives after the reply counts. If the
      // script arrives earlier, this costs one retry.
      mScriptSince = mHandedOver == configuration ? before : fileTime();
      noteHandedOver(configuration);
    }
    handedOver(problem);
  });
}

void HandOver::handedOver(const std::string& problem) {
  if (!problem.empty()) {
    failed(problem, Due::kAlways);
    return;
  }
  mFailures = 0;
  mProblem.clear();
  mIsForeign = false;
  logLine(LOG_NOTICE, "settings: the daemon has the configuration, mode %s",
          modeText(mHandedOver->mode));
  if (!usesScript()) {
    mScriptTimer.cancel();
    mIsNetworkPause = false;
  } else if (!mIsNetworkPause) {
    mScriptTimer.set(scriptPause(mScriptRetry++));
  }
  proceed();
}

void HandOver::failed(const std::string& problem, Due due) {
  mDue = std::max(mDue, due);
  mProblem = problem;
  const auto pause = failurePause(mFailures++);
  logLine(LOG_WARNING, "settings: the hand-over failed, next in %lld s: %s",
          static_cast<long long>(pause.count()), problem.c_str());
  mFailureTimer.set(pause);
}

}  // namespace settings
