#include "settings/settings_service.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "base/bus_names.h"
#include "base/log_line.h"
#include "settings/default_routes.h"

namespace settings {

namespace {

const sd_bus_vtable* stateTable(sd_bus_message_handler_t getState) {
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("GetState", SD_BUS_NO_ARGS, SD_BUS_RESULT("s", json), getState,
                              SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  return table;
}

const char* holderText(Choice::Holder holder) {
  switch (holder) {
    case Choice::Holder::kFile:
      return "file";
    case Choice::Holder::kNetwork:
      return "network";
    case Choice::Holder::kFallback:
      break;
  }
  return "fallback";
}

const char* sourceText(Source source) {
  switch (source) {
    case Source::kFile:
      return "file";
    case Source::kNetwork:
      return "network";
    case Source::kAuto:
      break;
  }
  return "auto";
}

// Every user may read the state, so it has no password.
nlohmann::json shown(const Configuration& configuration) {
  return {{"mode", modeText(configuration.mode)},
          {"proxy_url", withoutCredentials(configuration.proxyUrl)},
          {"pac_url", withoutCredentials(configuration.pacUrl)},
          {"authentication", configuration.authenticates()}};
}

nlohmann::json shown(const NetworkConfiguration& network, bool holds) {
  auto entry = shown(network.configuration);
  entry["interface"] = network.interface;
  entry["direct"] = network.isDirect;
  entry["script"] = !network.script.empty();
  entry["usable"] = network.isUsable;
  entry["holds"] = holds;
  return entry;
}

}  // namespace

SettingsService::SettingsService(sd_event* event, sd_bus* bus, sd_bus* questions, Places places,
                                 base::UniqueFd scripts)
    : mBus(bus),
      mPlaces(std::move(places)),
      mDaemon(bus, questions),
      mHandOver(event, mDaemon, mPlaces.pacFile),
      mPacRunner(bus, mDaemon, [this] { decide(); }),
      mScripts(
          scripts ? std::make_unique<ScriptServer>(event, std::move(scripts), mPlaces.runtimeFolder)
                  : nullptr),
      mSettingsWatch(event, [this] { filesChanged(); }),
      mResolverWatch(event,
                     [this] {
                       mResolverWatch.set(placesOf(mPlaces.resolverFile));
                       mHandOver.networkChanged();
                     }),
      mGatherTimer(event,
                   [this] {
                     mIsGathering = false;
                     decide();
                   }),
      mServeTimer(event, [this] { decide(); }) {
  watchRoutes(event);
}

void SettingsService::start() {
  mRoutes = readDefaultRoutes().value_or(DefaultRoutes());
  mResolverWatch.set(placesOf(mPlaces.resolverFile));
  sd_bus_slot* slot = nullptr;
  require(sd_bus_add_object_vtable(mBus, &slot, base::kSettingsObjectPath, base::kSettingsInterface,
                                   stateTable(onGetState), this),
          "sd_bus_add_object_vtable");
  mObject.reset(slot);
  mIsGathering = hasNetworkManager();
  if (mIsGathering) mGatherTimer.set(kGatherTime);
  mPacRunner.start();
  mDaemon.watch(*this);
  reload();
  require(sd_bus_request_name(mBus, base::kSettingsBusName, 0), "the bus name");
}

bool SettingsService::hasNetworkManager() {
  for (const char* name : {"org.freedesktop.NetworkManager", "net.connman"}) {
    if (sd_bus_get_name_creds(mBus, name, 0, nullptr) >= 0) return true;
  }
  return false;
}

void SettingsService::reload() {
  filesChanged();
  mHandOver.check();
}

// Other programs have files in the same folder. If only such a file changes, a configuration that
// another program has set stays.
void SettingsService::filesChanged() {
  const bool isNew = readFiles();
  decide();
  if (isNew) mHandOver.check();
}

// If a file is faulty when the service starts after a boot, its valid lines are better than no
// proxy. If only the service restarts, the daemon's present configuration is better than these
// lines.
/// @return whether the settings in force have changed
bool SettingsService::readFiles() {
  mLastReading = readFolder(mPlaces.files);
  // A change between the first reading and the first watch is not noticed, so the files are read
  // again.
  if (watchFiles()) mLastReading = readFolder(mPlaces.files);
  for (const auto& problem : mLastReading.problems) {
    logLine(problem.isWarning ? LOG_WARNING : LOG_ERR, "settings: %s", problem.text.c_str());
  }
  const bool isFaulty = mLastReading.isFaulty();
  if (isFaulty && mHasGoodSettings) {
    logLine(LOG_ERR, "settings: the files are not used, the last good settings stay");
    return false;
  }
  if (isFaulty) {
    logLine(LOG_ERR, "settings: the files are used in part, and only for a daemon in mode off");
  }
  const bool isNew = mHasGoodSettings == isFaulty || mSettings.settings != mLastReading.settings ||
                     mSettings.password != mLastReading.password;
  mHasGoodSettings = !isFaulty;
  mSettings = mLastReading;
  if (!missingKey(mSettings.settings).empty()) mSettings.settings.mode.reset();
  mHandOver.leaveOthers(isFaulty);
  return isNew;
}

/// @return whether there is a new place among the watched places
bool SettingsService::watchFiles() {
  const std::string& folder = mPlaces.files.folder;
  std::vector<FileWatch::Place> places{{folder, ""}, {folder + "/settings.d", ""}};
  const auto follow = [&places](const std::string& path) {
    for (auto& place : placesOf(path)) places.push_back(std::move(place));
  };
  // The paths of the folders are watched, too: a folder can disappear and come back, or can be a
  // link.
  follow(folder);
  follow(folder + "/settings.d");
  if (const auto& file = mLastReading.settings.passwordFile) follow(*file);
  if (const auto& name = mLastReading.settings.passwordCredential) {
    places.push_back({mPlaces.files.credentials, *name});
  }
  return mSettingsWatch.set(places);
}

void SettingsService::decide() {
  mPacRunner.answerAll(mSettings.settings.findProxyAll.value_or(false));
  mHandOver.refreshEvery(mSettings.settings.refresh.value_or(std::chrono::seconds{0}));
  mChoice = chosen(true);
  if (mIsGathering && mChoice.holder != Choice::Holder::kFile) return;
  if (publishOrWithdraw()) {
    mServeFailures = 0;
    mServeTimer.cancel();
  } else {
    mChoice = chosen(false);
    mChoice.reason = (mChoice.network != nullptr ? mChoice.reason + "; " : std::string()) +
                     "the script of a network manager cannot be served";
    publishOrWithdraw();
    // The service tries again later, when the disk may have space again. If there is no socket,
    // only a restart of the service helps.
    if (mScripts) mServeTimer.set(failurePause(mServeFailures++));
  }
  const std::string line =
      std::string(modeText(mChoice.configuration.mode)) + " (" + mChoice.reason + ")";
  if (line != mLoggedReason) logLine(LOG_NOTICE, "settings: mode %s", line.c_str());
  mLoggedReason = line;
  mHandOver.want(mChoice.configuration);
}

/// @param scriptsCount whether the script of a network manager can be served
Choice SettingsService::chosen(bool scriptsCount) const {
  const bool directCounts = mSettings.settings.networkDirectIsOff.value_or(false);
  const auto* network = holding(mPacRunner.set(), mRoutes, directCounts, scriptsCount);
  return choose(mSettings.settings, mSettings.password, network);
}

/// Serves the script of the configuration in force, if it has one, and removes every other script.
/// @return false if this script cannot be served
bool SettingsService::publishOrWithdraw() {
  if (mChoice.network == nullptr || mChoice.network->script.empty()) {
    if (mScripts) mScripts->withdraw();
    return true;
  }
  if (!mScripts) {
    logLine(LOG_ERR, "settings: a network manager's script cannot be served: %s", "no socket");
    return false;
  }
  try {
    mChoice.configuration.pacUrl = mScripts->publish(mChoice.network->script);
    return true;
  } catch (const std::system_error& error) {
    logLine(LOG_ERR, "settings: a network manager's script cannot be served: %s", error.what());
    return false;
  }
}

void SettingsService::daemonAppeared() {
  logLine(LOG_INFO, "settings: the daemon is there");
  mHandOver.daemonAppeared();
}

void SettingsService::daemonVanished() {
  logLine(LOG_INFO, "settings: the daemon is gone");
  mHandOver.daemonVanished();
}

void SettingsService::watchRoutes(sd_event* event) {
  mRouteSocket = openRouteSocket();
  if (!mRouteSocket) return;
  sd_event_source* source = nullptr;
  require(sd_event_add_io(event, &source, mRouteSocket.get(), EPOLLIN, onRoute, this),
          "sd_event_add_io");
  mRouteSource.reset(source);
}

int SettingsService::onRoute(sd_event_source* source, int socket, std::uint32_t, void* self) {
  if (!drainRouteSocket(socket)) return 0;
  auto& service = *static_cast<SettingsService*>(self);
  return guarded(sd_event_source_get_event(source), [&service] { service.routesChanged(); });
}

void SettingsService::routesChanged() {
  auto routes = readDefaultRoutes();
  if (!routes || *routes == mRoutes) return;
  mRoutes = std::move(*routes);
  decide();
  mHandOver.networkChanged();
}

int SettingsService::onGetState(sd_bus_message* call, void* self, sd_bus_error* error) {
  try {
    return static_cast<SettingsService*>(self)->getState(call, error);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

// All waiting calls share one question for the daemon's configuration.
int SettingsService::getState(sd_bus_message* call, sd_bus_error* error) {
  if (!mDaemon.isThere()) return sd_bus_reply_method_return(call, "s", state({}).c_str());
  if (mStateCalls.size() >= kMaxStateCalls) {
    return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many calls wait");
  }
  // This call is added to the list after read(). So if read() throws, this call gets the error, and
  // no call waits for an answer.
  if (mStateCalls.empty()) {
    mDaemon.read([this](const auto& daemon, const auto&) { answerStateCalls(daemon); },
                 kStateLimit);
  }
  mStateCalls.emplace_back(sd_bus_message_ref(call));
  return 1;
}

void SettingsService::answerStateCalls(const std::optional<Configuration>& daemon) {
  const std::string text = state(daemon);
  for (const auto& call : std::exchange(mStateCalls, {})) {
    sd_bus_reply_method_return(call.get(), "s", text.c_str());
  }
}

std::string SettingsService::state(const std::optional<Configuration>& daemon) const {
  nlohmann::json state;
  state["source"] = sourceText(mSettings.settings.source.value_or(Source::kAuto));
  state["holder"] = holderText(mChoice.holder);
  state["reason"] = mChoice.reason;
  state["wanted"] = shown(mChoice.configuration);
  state["mode_files"] = mLastReading.modeFiles;
  state["problems"] = nlohmann::json::array();
  for (const auto& problem : mLastReading.problems) state["problems"].push_back(problem.text);
  state["faulty_files"] = mLastReading.isFaulty();
  state["last_good_settings"] = mLastReading.isFaulty() && mHasGoodSettings;
  state["networks"] = nlohmann::json::array();
  for (const auto& [number, network] : mPacRunner.set().all()) {
    const bool holds = mChoice.network != nullptr && mChoice.network->number == number;
    state["networks"].push_back(shown(network, holds));
  }
  state["daemon"] = mDaemon.isThere();
  const auto last = mHandOver.lastHandOver();
  state["handed_over_at"] = last ? nlohmann::json(*last) : nlohmann::json();
  state["problem"] = mHandOver.lastProblem();
  state["daemon_has"] = daemon ? shown(*daemon) : nlohmann::json();
  state["changed_by_another_program"] = daemon ? !mHandOver.isOurs(*daemon) : mHandOver.isForeign();
  // dump() replaces bytes that are not UTF-8: a text of a network manager may have any bytes that
  // the bus accepts.
  return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace settings
